#include <gtest/gtest.h>

#include "support/TestSupport.hpp"
#include "transport/PlainAnswerScanner.hpp"
#include "transport/VNTRRequestResponse.hpp"

namespace vntr {
namespace {

constexpr const char* kNotSerializable = "[Warning] Remote Response was not serializable";
constexpr const char* kNotArray =
    "[Warning] Remote Response is not an array of dictionaries, therefore not usable";
constexpr const char* kBadEntry =
    "[Warning] Unable to create remote Response Object for single response.";

TEST(VNTRRequestResponse, rejectsUnusableEnvelopesWithTheirWarning) {
  struct Case {
    std::string body;
    const char* line;
  };
  const std::vector<Case> cases = {
      {"", kNotSerializable},    {"not json", kNotSerializable},
      {"42", kNotSerializable},  {"\"text\"", kNotSerializable},
      {"[1,", kNotSerializable}, {std::string(200, '[') + std::string(200, ']'), kNotSerializable},
      {"{}", kNotArray},         {"[{\"id\":\"a\",\"result\":{}}, 3]", kNotArray},
      {"[null]", kNotArray},     {"[[]]", kNotArray},
  };
  for (const auto& c : cases) {
    test::CapturingLog log;
    EXPECT_FALSE(VNTRRequestResponse::make(c.body)) << c.body;
    EXPECT_EQ(log.lines(), std::vector<std::string>{c.line}) << c.body;
  }
}

TEST(VNTRRequestResponse, keepsUsableEntriesInOrderAndSkipsTheRestOneByOne) {
  test::CapturingLog log;
  const auto response = VNTRRequestResponse::make(
      R"([{"id":"a","result":{}}, {"id":7,"result":{}}, {"id":"c","error":{"code":1}},
          {"id":"d","result":null}, {"id":"e","result":[1]}, {"result":{}},
          {"id":"a","result":{"x":1},"error":{"message":"both"}}, {"id":"f","result":{},"x":1}])");
  ASSERT_TRUE(response);
  const auto& entries = response->methodResponses;
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].id, "a");
  EXPECT_EQ(*entries[0].remoteResult, nlohmann::json::object());
  EXPECT_FALSE(entries[0].remoteError);
  EXPECT_EQ(entries[1].id, "c");
  EXPECT_FALSE(entries[1].remoteResult);
  EXPECT_EQ((*entries[1].remoteError)["code"], 1);
  EXPECT_EQ(entries[2].id, "a");  // repeated ids are both kept; routing is the requester's
  EXPECT_TRUE(entries[2].remoteResult && entries[2].remoteError);
  EXPECT_EQ(entries[3].id, "f");
  EXPECT_EQ(log.lines(), std::vector<std::string>(4, kBadEntry));
}

// The answer is read without building the whole document; it must read as the document would:
// the last of repeated members counts, and nested results arrive whole.
TEST(VNTRRequestResponse, readsEntriesAsTheWholeDocumentWould) {
  const std::string body =
      R"([{"id":7,"id":"g","result":{}}, {"id":"h","result":{},"result":1},
          {"x":{"id":"no","result":{}},"id":"n","result":{"a":[1,{"b":2.5,"c":"s"}],"t":null}},
          {"id":"e","error":{"code":-1,"data":[true,"x"]},"error":{"message":"last"}}])";
  const auto response = VNTRRequestResponse::make(body);
  ASSERT_TRUE(response);
  std::vector<nlohmann::json> read;
  for (const auto& entry : response->methodResponses) {
    read.push_back({{"id", entry.id},
                    {"result", entry.remoteResult.value_or(nullptr)},
                    {"error", entry.remoteError.value_or(nullptr)}});
  }
  const auto expected = nlohmann::json::parse(R"([
      {"id":"g","result":{},"error":null},
      {"id":"n","result":{"a":[1,{"b":2.5,"c":"s"}],"t":null},"error":null},
      {"id":"e","result":null,"error":{"message":"last"}}])");
  EXPECT_EQ(nlohmann::json(read), expected);
}

// Numbers compare equal across their kinds in nlohmann::json; the kind matters here.
bool sameTyped(const nlohmann::json& a, const nlohmann::json& b) {
  if (a.type() != b.type() || a.size() != b.size()) return false;
  if (a.is_object()) {
    for (auto it = a.begin(); it != a.end(); ++it) {
      if (!b.contains(it.key()) || !sameTyped(*it, b.at(it.key()))) return false;
    }
    return true;
  }
  if (a.is_array()) {
    for (size_t i = 0; i < a.size(); ++i) {
      if (!sameTyped(a[i], b[i])) return false;
    }
    return true;
  }
  return a == b;
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

TEST(VNTRRequestResponse, emptyArrayIsAnAnswerWithNoEntriesAndNoLog) {
  test::CapturingLog log;
  const auto response = VNTRRequestResponse::make("[]");
  ASSERT_TRUE(response);
  EXPECT_TRUE(response->methodResponses.empty());
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace vntr
