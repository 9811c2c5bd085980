// The text on the wire: request members written as JSON text, batch answers read back, and the
// mock server the requester tests talk to.
#include <gtest/gtest.h>

#include <algorithm>

#include "core/Extensions.hpp"
#include "support/TestSupport.hpp"
#include "transport/HTTPMockClient.hpp"
#include "transport/PlainAnswerScanner.hpp"
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

// Numbers compare equal across their kinds in nlohmann::json; the kind matters here. Equal
// containers hold their members in the same order (objects sort their keys).
bool sameTyped(const nlohmann::json& a, const nlohmann::json& b) {
  if (a.type() != b.type() || a != b) return false;
  return !a.is_structured() || std::equal(a.begin(), a.end(), b.begin(), b.end(), sameTyped);
}

// The quick reader takes the plain answers servers send and gives exactly the entries of the
// document read whole; anything else, valid or not, it leaves to the general reader.
TEST(VNTRRequestResponse, quickReaderGivesTheWholeDocumentsEntriesOrLeavesIt) {
  const std::string deep =
      "[{\"id\":\"d\",\"result\":" + std::string(6, '[') + std::string(6, ']') + "}]";
  struct Case {
    std::string body;
    bool plain;
  } const cases[] = {
      {" [ ] ", true},
      {R"([{"id":"a","result":{"status":"ok"}}, {"id":"b","error":{"code":-32000}}])", true},
      {R"([{"id":7,"id":"g","result":{"x":[1,-2,0,-0,true,false,null,"s",{"k":"v","k":"w"}]},
           "error":1}, {"result":{}}, {"id":"c"}, {"id":"d","result":[],"error":{}}, {}])",
       true},
      {R"([{"x":{"id":"no","result":{}},"id":"n","result":{"n":123456789012345678}}])", true},
      {R"({"id":"a","result":{}})", false},                           // not an array
      {R"([1])", false},                                              // not an object
      {R"([{"id":"\u0061","result":{}}])", false},                    // an escape
      {"[{\"id\":\"\xc3\xa9\",\"result\":{}}]", false},               // not ASCII
      {R"([{"id":"a","result":{"p":1.5,"q":1e3}}])", false},          // not an integer
      {R"([{"id":"a","result":{"n":1234567890123456789}}])", false},  // 19 digits
      {R"([{"id":"a",}])", false},
      {R"([{"id":"a"}] x)", false},
      {"[", false},
      {R"([{"id":"a","result":{"n":01}}])", false},
      {R"([{"id":"a","result":tru}])", false},
      {deep, false},  // deeper than 6
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    const auto quick = detail::scanPlainAnswer(c.body, 6);
    ASSERT_EQ(quick.has_value(), c.plain);
    if (!quick) continue;
    const auto document = nlohmann::json::parse(c.body);
    ASSERT_EQ(quick->size(), document.size());
    for (size_t i = 0; i < document.size(); ++i) {
      const auto whole = VNTRRemoteResponse::make(document[i]);
      const auto& entry = (*quick)[i];
      ASSERT_EQ(entry.has_value(), whole.has_value());
      if (!entry) continue;
      EXPECT_EQ(entry->id, whole->id);
      EXPECT_TRUE(
          sameTyped(entry->remoteResult.value_or(nullptr), whole->remoteResult.value_or(nullptr)));
      EXPECT_TRUE(
          sameTyped(entry->remoteError.value_or(nullptr), whole->remoteError.value_or(nullptr)));
    }
  }
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
    return error ? error->localizedDescription : "";
  };
  EXPECT_EQ(post(R"([{"method":"syncEvent","id":"E"},{"method":"other","id":"X"}])"), "");
  ASSERT_TRUE(data && response);
  EXPECT_EQ(response->statusCode, 202);
  const auto answers = nlohmann::json::parse(*data);
  ASSERT_EQ(answers.size(), 1u);  // no answer for a method it does not know
  EXPECT_EQ(answers[0]["id"], "E");
  EXPECT_EQ(answers[0]["error"]["code"], 7);
  EXPECT_EQ(post("{oops"), "JSON data was not unserializeable");
  EXPECT_EQ(post(R"({"method":"syncEvent"})"), "JSON data badly formatted");
  EXPECT_FALSE(data || response);
  fields.jsonDataResponse = "canned";
  fields.shouldSendNilData = true;  // wins over the canned body
  fields.shouldSendNilURLResponse = true;
  client.setFields(fields);
  EXPECT_EQ(post("[]"), "");
  EXPECT_FALSE(data || response);
}

}  // namespace
}  // namespace vntr
