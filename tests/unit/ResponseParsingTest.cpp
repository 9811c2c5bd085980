// Text that crosses the library's edges: request members written as JSON text, batch answers read
// back, and the site ID property list a host ships.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <fstream>

#include "core/Extensions.hpp"
#include "facade/VNTRTagManagerSiteID.hpp"
#include "platform/linux/PropertyList.hpp"
#include "support/TestSupport.hpp"
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

// The site ID property list a host ships: every shape it may take, including inputs found while
// fuzzing (fuzz/) that once brought the process down, and nesting deep enough to exhaust a small
// thread stack inside libplist.
using test::CapturingLog;
using test::TempDir;
using Lines = std::vector<std::string>;

const std::string kNotFound =
    "[Error] The VantrelTagManagerSDKInfo.plist file could not be found.  All events will be "
    "ignored.";
const std::string kMalformed =
    "[Error] The Info plist is not properly formatted.  All events will be ignored.";
const std::string kMissingKey =
    "[Error] Could not find key \"VantrelSiteID\" in \"VantrelTagManagerSDKInfo.plist\".";

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// A binary property list: the root dictionary {"VantrelSiteID": "site", "deep": [[[...]]]}
// with `levels` nested arrays; or, with `selfReference`, an array that contains itself.
std::string binaryPlist(size_t levels, bool selfReference = false) {
  auto ref = [](uint32_t index) {
    return std::string{static_cast<char>(index >> 24), static_cast<char>(index >> 16),
                       static_cast<char>(index >> 8), static_cast<char>(index)};
  };
  std::vector<std::string> objects = {"\241" + ref(0)};  // octal escapes: hex ones eat letters
  if (!selfReference) {
    objects = {"\322" + ref(1) + ref(2) + ref(3) + ref(4), "\135VantrelSiteID", "\124deep",
               "\124site"};
    for (size_t i = 0; i < levels; ++i) {
      objects.push_back(i + 1 < levels ? "\241" + ref(static_cast<uint32_t>(5 + i)) : "\240");
    }
  }
  std::string bytes = "bplist00";
  std::vector<uint32_t> offsets;
  for (const auto& object : objects) {
    offsets.push_back(static_cast<uint32_t>(bytes.size()));
    bytes += object;
  }
  const auto table = static_cast<uint32_t>(bytes.size());
  for (const auto offset : offsets) bytes += ref(offset);
  return bytes + std::string(6, '\0') + "\x04\x04" + std::string(4, '\0') +
         ref(static_cast<uint32_t>(objects.size())) + std::string(12, '\0') + ref(table);
}

std::string xmlPlist(size_t levels, const std::string& open = "<array>") {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>VantrelSiteID</key><string>site</string><key>deep</key>";
  for (size_t i = 0; i < levels; ++i) text += open;
  for (size_t i = 0; i < levels; ++i) text += "</array>";
  return text + "</dict></plist>\n";
}

struct Outcome {
  std::optional<std::string> siteID;
  std::vector<std::string> lines;
};

// Loads the site ID from `bytes` on a thread with a 512 KiB stack, as a host's worker thread may
// have; libplist recurses once per nesting level while it builds and frees the tree.
Outcome load(const std::optional<std::string>& bytes, bool anyDictionary = false) {
  TempDir dir;
  const auto file = dir / "VantrelTagManagerSDKInfo.plist";
  if (bytes) std::ofstream(file, std::ios::binary) << *bytes;
  CapturingLog log;
  std::optional<std::string> result;
  const std::function<void()> run = [&] {
    if (!anyDictionary) {
      result = loadSiteID(dir.path());
    } else if (const auto entries = readPropertyListDictionary(file)) {
      result = entries->at("VantrelSiteID");
    }
  };
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 512 * 1024);
  pthread_t thread;
  const auto call = [](void* f) -> void* {
    return (*static_cast<const std::function<void()>*>(f))(), nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, call, const_cast<std::function<void()>*>(&run)),
            0);
  pthread_attr_destroy(&attributes);
  pthread_join(thread, nullptr);
  return {result, log.lines()};
}

// Values are checked on the parsed tree, whichever format it came in.
TEST(SiteID, isReadFromWellFormedListsInEitherFormat) {
  const auto xml = [](const std::string& entries) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
  };
  const std::string site = "<key>VantrelSiteID</key><string>site-42</string>";
  EXPECT_EQ(load(xml(site + "<key>Other</key><string>ignored</string>")).siteID, "site-42");
  EXPECT_EQ(load(xml("<key>VantrelSiteID</key><string/>")).siteID, "");  // empty counts
  EXPECT_EQ(load(xml("<key>VantrelSiteId</key><string>x</string>")).lines, Lines{kMissingKey});
  for (const char* bad : {"<integer>7</integer>", "<true/>", "<array/>", "<dict/>"}) {
    EXPECT_EQ(load(xml(site + "<key>Extra</key>" + bad)).lines, Lines{kMalformed}) << bad;
  }
  // UTF-16 strings in a binary list are fine; nesting up to the limit is too.
  EXPECT_EQ(load(fromHex("62706c6973743030d2010203045d56616e7472656c5369746549446300e9007400e96400"
                         "630061006600e95178080d1b222b000000000000010100000000000000050000000000"
                         "000000000000000000002d"))
                .siteID,
            "caf\xc3\xa9");
  EXPECT_EQ(load(binaryPlist(100), true).siteID, "site");
  EXPECT_EQ(load(xmlPlist(100, "<array >"), true).siteID, "site");
  // Containers inside comments, instructions and CDATA are not counted.
  EXPECT_EQ(load(xmlPlist(1, "<!--" + std::string(200, '.') + "--><array>"), true).siteID, "site");
}

// Every input that is not a dictionary of strings is refused with one line, never a crash: no
// file, text that is not a list, a truncated one, a huge one, U+0000 (libplist asserts on it) in
// XML text, CDATA, binary keys and values, nesting past the limit or deep enough to exhaust the
// stack (also where libplist reads "<!-->" as an unfinished comment), a list that contains itself.
TEST(SiteID, everyOtherInputIsRefusedWithOneLine) {
  EXPECT_EQ(load(std::nullopt).lines, Lines{kNotFound});
  std::string cdata;
  for (int i = 0; i < 200; ++i) cdata += "<array>";
  EXPECT_EQ(load("<?xml version=\"1.0\"?><!DOCTYPE plist [<!-- <array> -->]><plist><dict><key>"
                 "VantrelSiteID</key><string><![CDATA[" +
                 cdata + "]]></string></dict></plist>")
                .siteID,
            cdata);
  const std::string xmlFromFuzzer(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//D"
      "TD PLIST 1.0//EN\" \"ht\">\n<plist ver1ion=\"1.0\">\n<dict>\n\t<key>SiteID</key>"
      "\n\t<string>abc\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
      "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xb5\xff\xff\xff\xff"
      "\xff\xff\xff\xffVantrelSiteID\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
      "\xff\xff\xff\xff\xff</string>\n</dict>\n</plist>\n",
      277);
  const std::string inputs[] = {
      "",
      "VantrelSiteID = site;",
      "{\"VantrelSiteID\": \"site\"}",
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>VantrelSiteID</key>",
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>x</string></array></plist>",
      "bplist00\xff\xff\xff\xff garbage after a binary header",
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>" +
          std::string(1024 * 1024, 'x') + "</string></dict></plist>",
      xmlFromFuzzer,
      std::string("<plist><dict><key>VantrelSiteID</key><string><![CDATA[a") + '\0' +
          "b]]></string></dict></plist>",
      // NUL in a binary key, and in the site ID
      fromHex("62706c6973743030d2010203045d56616e7472656c5369746549446300e90000007a5173526263080d"
              "1b22240000000000000101000000000000000500000000000000000000000000000027"),
      fromHex("62706c6973743030d101025d56616e7472656c5369746549446300e90000006308"
              "0b190000000000000101000000000000000300000000000000000000000000000020"),
      binaryPlist(kMaxPropertyListDepth + 1),
      binaryPlist(50'000),
      xmlPlist(60'000),
      xmlPlist(kMaxPropertyListDepth + 10, "<array><!--></array>-->"),
      binaryPlist(1, /*selfReference=*/true),
  };
  for (const auto& input : inputs) {
    SCOPED_TRACE(input.substr(0, 60));
    const auto outcome = load(input);
    EXPECT_FALSE(outcome.siteID);
    EXPECT_EQ(outcome.lines, Lines{kMalformed});
  }
  TempDir dir;
  std::filesystem::create_directory(dir / "VantrelTagManagerSDKInfo.plist");  // not a file
  CapturingLog log;
  EXPECT_FALSE(loadSiteID(dir.path()));
  EXPECT_EQ(log.lines(), Lines{kMalformed});
}

}  // namespace
}  // namespace vntr
