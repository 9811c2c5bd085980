// The text on the wire: request members written as JSON text, batch answers read back, and the
// mock server the requester tests talk to.
#include <gtest/gtest.h>

#include "core/Extensions.hpp"
#include "support/TestSupport.hpp"
#include "transport/HTTPMockClient.hpp"
#include "transport/VNTRRequestResponse.hpp"

namespace vntr {
namespace {

constexpr const char* kNotSerializable = "[Warning] Remote Response was not serializable";
constexpr const char* kNotArray =
    "[Warning] Remote Response is not an array of dictionaries, therefore not usable";

TEST(VNTRRequestResponse, rejectsUnusableEnvelopesWithTheirWarning) {
  const std::vector<std::pair<std::string, const char*>> cases = {
      {"", kNotSerializable},    {"not json", kNotSerializable},
      {"42", kNotSerializable},  {"\"text\"", kNotSerializable},
      {"[1,", kNotSerializable}, {std::string(200, '[') + std::string(200, ']'), kNotSerializable},
      {"{}", kNotArray},         {"[{\"id\":\"a\",\"result\":{}}, 3]", kNotArray},
      {"[null]", kNotArray},     {"[[]]", kNotArray},
      {"[]", nullptr},  // an answer with no entries, and nothing to say
  };
  for (const auto& [body, line] : cases) {
    SCOPED_TRACE(body);
    test::CapturingLog log;
    const auto response = VNTRRequestResponse::make(body);
    EXPECT_EQ(response && response->methodResponses.empty(), line == nullptr);
    EXPECT_EQ(log.lines(), line ? std::vector<std::string>{line} : std::vector<std::string>{});
  }
}

// The answer is read without building the whole document; it must read as the document would:
// the last of repeated members counts, nested results arrive whole, repeated ids are all kept
// (routing is the requester's), and each unusable entry is skipped with a warning.
TEST(VNTRRequestResponse, readsEntriesAsTheWholeDocumentWouldSkippingUnusableOnes) {
  test::CapturingLog log;
  const auto response = VNTRRequestResponse::make(
      R"([{"id":"a","result":{}}, {"id":7,"result":{}}, {"id":"c","error":{"code":1}},
          {"id":"d","result":null}, {"id":"e","result":[1]}, {"result":{}},
          {"id":"a","result":{"x":1},"error":{"message":"both"}}, {"id":"f","result":{},"x":1},
          {"id":7,"id":"g","result":{}}, {"id":"h","result":{},"result":1},
          {"x":{"id":"no","result":{}},"id":"n","result":{"a":[1,{"b":2.5,"c":"s"}],"t":null}},
          {"id":"e","error":{"code":-1,"data":[true,"x"]},"error":{"message":"last"}}])");
  ASSERT_TRUE(response);
  std::vector<nlohmann::json> read;
  for (const auto& entry : response->methodResponses) {
    read.push_back({{"id", entry.id},
                    {"result", entry.remoteResult.value_or(nullptr)},
                    {"error", entry.remoteError.value_or(nullptr)}});
  }
  EXPECT_EQ(nlohmann::json(read), nlohmann::json::parse(R"([
      {"id":"a","result":{},"error":null}, {"id":"c","result":null,"error":{"code":1}},
      {"id":"a","result":{"x":1},"error":{"message":"both"}}, {"id":"f","result":{},"error":null},
      {"id":"g","result":{},"error":null},
      {"id":"n","result":{"a":[1,{"b":2.5,"c":"s"}],"t":null},"error":null},
      {"id":"e","result":null,"error":{"message":"last"}}])"));
  EXPECT_EQ(log.lines(),
            std::vector<std::string>(
                5, "[Warning] Unable to create remote Response Object for single response."));
}

// Request members are written without building JSON values; the text must be what dump() writes,
// byte for byte, and invalid UTF-8 must be refused as dump() refuses it.
TEST(JsonText, stringsAreWrittenAsDumpWritesThem) {
  std::vector<std::string> texts = {"",
                                    "checkout",
                                    "a\"b\\c/d",
                                    "\b\f\n\r\t",
                                    "\x7f plain",
                                    "Grüße ✓ 😀",
                                    std::string("nul\0x", 5)};
  for (int c = 0; c < 0x20; ++c) texts.push_back(std::string(1, static_cast<char>(c)) + "x");
  for (const auto& text : texts) {
    std::string out = "prefix";
    ASSERT_TRUE(appendJSONString(out, text));
    EXPECT_EQ(out, "prefix" + nlohmann::json(text).dump());
  }
  for (const std::string bad : {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\xaf"}) {
    std::string out = "kept";
    EXPECT_FALSE(appendJSONString(out, bad));
    EXPECT_EQ(out, "kept");
    EXPECT_THROW((void)nlohmann::json(bad).dump(), nlohmann::json::type_error);
  }
}

TEST(HTTPMockClient, shapesTheReplyFromItsFieldsAndRefusesBodiesThatAreNotArraysOfObjects) {
  HTTPMockClient::Fields fields;
  fields.statusCode = 202;
  fields.errorObject = nlohmann::json{{"code", 7}};
  HTTPMockClient client(fields);
  std::optional<std::string> data;
  std::optional<HTTPURLResponse> response;
  std::optional<HTTPError> error;
  const auto post = [&](const std::string& body) {
    client.post(body, "http://127.0.0.1/tags", [&](auto d, auto r, auto e) {
      std::tie(data, response, error) = std::tuple(d, r, e);
    });
  };
  post(R"([{"method":"syncEvent","id":"E"},{"method":"other","id":"X"}])");
  ASSERT_TRUE(data && response);
  EXPECT_EQ(response->statusCode, 202);
  const auto answers = nlohmann::json::parse(*data);
  ASSERT_EQ(answers.size(), 1u);  // no answer for a method it does not know
  EXPECT_EQ(answers[0]["id"], "E");
  EXPECT_EQ(answers[0]["error"]["code"], 7);
  for (const auto& [body, description] :
       {std::pair{"{oops", "JSON data was not unserializeable"},
        std::pair{R"({"method":"syncEvent"})", "JSON data badly formatted"}}) {
    post(body);
    EXPECT_FALSE(data || response);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->localizedDescription, description);
  }
  fields.jsonDataResponse = "canned";
  fields.shouldSendNilData = true;  // wins over the canned body
  fields.shouldSendNilURLResponse = true;
  client.setFields(fields);
  post("[]");
  EXPECT_FALSE(data || response || error);
}

}  // namespace
}  // namespace vntr
