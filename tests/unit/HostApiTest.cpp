// What a host configures from outside: its own site ID beside the property list, the request
// timeout through C++ and C alike.
#include <gtest/gtest.h>
#include <vntr/vntr.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <vntr/VNTRTagManager.hpp>

#include "support/Harness.hpp"

namespace vntr {
namespace {

constexpr const char* kNotFound =
    "[Error] The VantrelTagManagerSDKInfo.plist file could not be found.  All events will be "
    "ignored.";
constexpr const char* kMissingKey =
    "[Error] Could not find key \"VantrelSiteID\" in \"VantrelTagManagerSDKInfo.plist\".";
constexpr const char* kUsingHost = "[Info] Using the site ID set by the application.";

TEST(HostSiteID, isUsedOnlyWhenThePropertyListGivesNoneAndItsLinesStay) {
  enum class Plist { valid, absent, withoutKey };
  const struct {
    Plist plist;
    std::optional<std::string> host;
    std::optional<std::string> expected;
    std::vector<std::string> lines;
  } cases[] = {
      {Plist::valid, std::nullopt, "12345", {}},
      {Plist::valid, "host-1", "12345", {}},
      {Plist::absent, std::nullopt, std::nullopt, {kNotFound}},
      {Plist::absent, "host-1", "host-1", {kNotFound, kUsingHost}},
      {Plist::withoutKey, "host-1", "host-1", {kMissingKey, kUsingHost}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host.value_or("no host ID"));
    test::CapturingLog log;
    test::Harness h({.siteId = c.plist == Plist::valid, .hostSiteId = c.host});
    if (c.plist == Plist::withoutKey) {
      std::ofstream(h.runtime->paths().mainBundleDirectory / "VantrelTagManagerSDKInfo.plist")
          << "<plist version=\"1.0\"><dict><key>Other</key><string>x</string></dict></plist>";
    }
    EXPECT_EQ(h.runtime->siteID(), c.expected);
    EXPECT_EQ(h.runtime->siteID(), c.expected);  // read once: no second set of lines
    EXPECT_EQ(log.lines(), c.lines);
  }
}

TEST(HostSiteID, refusesEmptyOrNonUTF8TextWithALogLine) {
  test::CapturingLog log;
  EXPECT_FALSE(VNTRTagManager::setSiteID(""));
  EXPECT_FALSE(VNTRTagManager::setSiteID("\xff"));
  EXPECT_EQ(vntr_set_site_id(nullptr), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST(RequestTimeout, cppAndCAcceptTheSameValues) {
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInf = std::numeric_limits<double>::infinity();
  auto& preferences = VNTRPreferences::sharedPreferences();
  const struct {
    double value;
    bool accepted;
  } cases[] = {{5, true},   {0.25, true},  {1e9, true},   {0, false},
               {-1, false}, {kNaN, false}, {kInf, false}, {-kInf, false}};
  for (const bool viaC : {false, true}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::to_string(c.value) + (viaC ? " via C" : " via C++"));
      test::CapturingLog log;
      preferences.setRequestTimeout(7);
      if (viaC) {
        vntr_set_request_timeout(c.value);
      } else {
        preferences.setRequestTimeout(c.value);
      }
      EXPECT_EQ(preferences.requestTimeout(), c.accepted ? c.value : 7);
      EXPECT_EQ(log.lines().size(), c.accepted ? 0u : 1u);
    }
  }
  preferences.setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
}

}  // namespace
}  // namespace vntr
