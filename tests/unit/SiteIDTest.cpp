// The site ID property list a host ships: every shape it may take, including inputs found while
// fuzzing (fuzz/) that once brought the process down, and nesting deep enough to exhaust a small
// thread stack inside libplist.
#include <gtest/gtest.h>
#include <pthread.h>

#include <fstream>

#include "facade/VNTRTagManagerSiteID.hpp"
#include "platform/linux/PropertyList.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

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
