// Inputs that brought the process down, found while fuzzing (see fuzz/), fed to the same code as
// ordinary tests so the fixes stay fixed in every build, sanitizers included.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "facade/TagManagerCore.hpp"
#include "facade/VNTRTagManagerSiteID.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "support/Harness.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::CapturingLog;
using test::TempDir;

const std::string kMalformedPlist =
    "[Error] The Info plist is not properly formatted.  All events will be ignored.";

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

struct SiteIDOutcome {
  std::optional<std::string> siteID;
  std::vector<std::string> lines;
};

SiteIDOutcome loadSiteIDFrom(const std::string& bytes) {
  TempDir dir;
  std::ofstream(dir / "VantrelTagManagerSDKInfo.plist", std::ios::binary) << bytes;
  CapturingLog log;
  auto siteID = loadSiteID(dir.path());
  return {siteID, log.lines()};
}

// libplist aborts the process (an assertion) when asked for a key or string holding U+0000.
// The site-ID fuzzer found it with a raw NUL in XML text; binary lists carry it in UTF-16
// strings, as keys or as values.
TEST(CrashRegression, siteIDPlistWithANulCharacterIsRefusedNotFatal) {
  const std::string xmlFromFuzzer(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//D"
      "TD PLIST 1.0//EN\" \"ht\">\n<plist ver1ion=\"1.0\">\n<dict>\n\t<key>SiteID</key>"
      "\n\t<string>abc\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
      "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xb5\xff\xff\xff\xff"
      "\xff\xff\xff\xffVantrelSiteID\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
      "\xff\xff\xff\xff\xff</string>\n</dict>\n</plist>\n",
      277);
  const std::string binaryNulInKey = fromHex(
      "62706c6973743030d2010203045d56616e7472656c5369746549446300e90000007a5173526263080d1b2224"
      "0000000000000101000000000000000500000000000000000000000000000027");
  const std::string binaryNulInSiteID = fromHex(
      "62706c6973743030d101025d56616e7472656c5369746549446300e900000063080b19000000000000010100"
      "0000000000000300000000000000000000000000000020");
  const std::string xmlNulInCData =
      std::string("<plist><dict><key>VantrelSiteID</key><string><![CDATA[a") + '\0' +
      "b]]></string></dict></plist>";

  for (const auto* input : {&xmlFromFuzzer, &binaryNulInKey, &binaryNulInSiteID, &xmlNulInCData}) {
    const auto outcome = loadSiteIDFrom(*input);
    EXPECT_EQ(outcome.siteID, std::nullopt);
    EXPECT_EQ(outcome.lines, std::vector<std::string>{kMalformedPlist});
  }

  // The check must not refuse UTF-16 strings in general.
  const auto utf16 = loadSiteIDFrom(fromHex(
      "62706c6973743030d2010203045d56616e7472656c5369746549446300e9007400e96400630061006600e951"
      "78080d1b222b000000000000010100000000000000050000000000000000000000000000002d"));
  EXPECT_EQ(utf16.siteID, "caf\xc3\xa9");
  EXPECT_TRUE(utf16.lines.empty());
}

// Event data nested `levels` deep ({"a":{"a":...}}), built without recursion.
nlohmann::json nestedData(size_t levels) {
  auto data = nlohmann::json::object();
  for (size_t i = 1; i < levels; ++i) {
    auto wrapper = nlohmann::json::object();
    wrapper["a"] = std::move(data);
    data = std::move(wrapper);
  }
  return data;
}

// The C++ API copied the host's event data before checking its depth, and copying recurses once
// per level: data a host parsed from someone else's JSON (nlohmann parses any depth) overflowed
// the calling thread's stack. Found while checking the event-data fuzzer's depth limits.
TEST(CrashRegression, deeplyNestedEventDataIsRefusedBeforeItIsCopied) {
  CapturingLog log;
  test::Harness h;
  auto fire = [&h](const nlohmann::json& data) {
    h.runtime->tagManager().fireEvents({"e"}, "g", data, VNTREventPriority::high, false);
    h.queue->runUntilIdle();
  };
  fire(nestedData(200'000));
  EXPECT_EQ(h.storedCount(), 0);
  EXPECT_EQ(log.count("[Error] Sync Event: Invalid event Data provided.  Ensure object is valid "
                      "using \"isValidJSONObject\"."),
            1u);
  fire(nestedData(VNTRSyncEvent::kMaxEventDataDepth));
  EXPECT_EQ(h.storedCount(), 1);
}

}  // namespace
}  // namespace vntr
