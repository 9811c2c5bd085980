#include <gtest/gtest.h>

#include "transport/HTTPMockClient.hpp"

namespace vntr {
namespace {

struct Reply {
  std::optional<std::string> data;
  std::optional<HTTPURLResponse> response;
  std::optional<HTTPError> error;
};

Reply post(HTTPMockClient& client, const std::string& body) {
  Reply reply;
  bool called = false;
  client.post(body, "http://127.0.0.1/tags", [&](auto data, auto response, auto error) {
    reply = {std::move(data), std::move(response), std::move(error)};
    called = true;
  });
  EXPECT_TRUE(called);  // synchronous
  return reply;
}

TEST(HTTPMockClient, answersEachRequestByMethodEchoingIdsInOrder) {
  HTTPMockClient::Fields fields;
  fields.batchInterval = 500;
  fields.qualifiedEvents =
      nlohmann::json{{"qualifiedEvents", {{{"eventName", "a"}}}}, {"expireEvents", 60000}};
  fields.statusCode = 202;
  HTTPMockClient client(fields);
  const auto reply =
      post(client, R"([{"method":"syncEvent","id":"E1"},{"method":"syncEvent","id":"E2"},
      {"method":"other","id":"X"},{"method":"getEvents","id":"G"}])");
  ASSERT_TRUE(reply.data && reply.response);
  EXPECT_FALSE(reply.error);
  EXPECT_EQ(reply.response->statusCode, 202);
  const auto answers = nlohmann::json::parse(*reply.data);
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers[0]["id"], "E1");
  EXPECT_TRUE(answers[0]["result"].is_object());
  EXPECT_EQ(answers[1]["id"], "E2");
  EXPECT_EQ(answers[2]["id"], "G");
  EXPECT_EQ(answers[2]["result"]["batchInterval"], 500);
  EXPECT_EQ(answers[2]["result"]["expireEvents"], 60000);
  EXPECT_EQ(answers[2]["result"]["qualifiedEvents"][0]["eventName"], "a");
}

TEST(HTTPMockClient, shapesTheReplyFromItsFields) {
  HTTPMockClient client;
  auto fields = client.fields();
  fields.errorObject = nlohmann::json{{"code", 7}, {"message", "x"}};
  client.setFields(fields);
  auto answers = nlohmann::json::parse(*post(client, R"([{"method":"syncEvent","id":"E"}])").data);
  EXPECT_EQ(answers[0]["error"]["code"], 7);

  fields.jsonDataResponse = "canned";
  fields.shouldSendNilData = true;  // wins over the canned body
  fields.shouldSendNilURLResponse = true;
  client.setFields(fields);
  const auto reply = post(client, R"([{"method":"syncEvent","id":"E"}])");
  EXPECT_FALSE(reply.data);
  EXPECT_FALSE(reply.response);
  EXPECT_FALSE(reply.error);
}

TEST(HTTPMockClient, reportsBodiesThatAreNotAnArrayOfObjects) {
  HTTPMockClient client;
  const auto notJson = post(client, "{oops");
  ASSERT_TRUE(notJson.error);
  EXPECT_EQ(notJson.error->domain, "JSON");
  EXPECT_EQ(notJson.error->code, 9999);
  EXPECT_EQ(notJson.error->localizedDescription, "JSON data was not unserializeable");
  const auto object = post(client, R"({"method":"syncEvent"})");
  ASSERT_TRUE(object.error);
  EXPECT_EQ(object.error->localizedDescription, "JSON data badly formatted");
  EXPECT_FALSE(object.data || object.response);
}

}  // namespace
}  // namespace vntr
