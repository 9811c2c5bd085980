#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "facade/VNTRTagManagerSiteID.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::CapturingLog;
using test::TempDir;

constexpr const char* kFileName = "VantrelTagManagerSDKInfo.plist";
const std::string kNotFound =
    "[Error] The VantrelTagManagerSDKInfo.plist file could not be found.  All events will be "
    "ignored.";
const std::string kMalformed =
    "[Error] The Info plist is not properly formatted.  All events will be ignored.";
const std::string kMissingKey =
    "[Error] Could not find key \"VantrelSiteID\" in \"VantrelTagManagerSDKInfo.plist\".";

enum class Format { xml, binary };

/// Writes a property list built by `fill` (given the root dictionary) in `format`.
void writePlist(const std::filesystem::path& file, Format format,
                const std::function<void(plist_t)>& fill) {
  plist_t root = plist_new_dict();
  fill(root);
  char* bytes = nullptr;
  uint32_t length = 0;
  if (format == Format::xml) {
    plist_to_xml(root, &bytes, &length);
  } else {
    plist_to_bin(root, &bytes, &length);
  }
  std::ofstream(file, std::ios::binary).write(bytes, length);
  std::free(bytes);
  plist_free(root);
}

void writeText(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

struct Outcome {
  std::optional<std::string> siteID;
  std::vector<std::string> lines;
};

Outcome load(const TempDir& dir) {
  CapturingLog log;
  auto siteID = loadSiteID(dir.path());
  return {siteID, log.lines()};
}

class SiteIDFromPlist : public testing::TestWithParam<Format> {};

TEST_P(SiteIDFromPlist, readsTheSiteIDAndIgnoresOtherStrings) {
  TempDir dir;
  writePlist(dir / kFileName, GetParam(), [](plist_t root) {
    plist_dict_set_item(root, "VantrelSiteID", plist_new_string("site-42"));
    plist_dict_set_item(root, "Other", plist_new_string("ignored"));
  });
  const auto outcome = load(dir);
  EXPECT_EQ(outcome.siteID, "site-42");
  EXPECT_TRUE(outcome.lines.empty());
}

TEST_P(SiteIDFromPlist, emptySiteIDCountsAsSet) {
  TempDir dir;
  writePlist(dir / kFileName, GetParam(), [](plist_t root) {
    plist_dict_set_item(root, "VantrelSiteID", plist_new_string(""));
  });
  const auto outcome = load(dir);
  EXPECT_EQ(outcome.siteID, "");
  EXPECT_TRUE(outcome.lines.empty());
}

TEST_P(SiteIDFromPlist, anyNonStringValueRejectsTheWholeFile) {
  const std::vector<std::function<plist_t()>> badValues = {
      [] { return plist_new_uint(7); }, [] { return plist_new_bool(1); },
      [] { return plist_new_array(); }, [] { return plist_new_dict(); }};
  for (size_t i = 0; i < badValues.size(); ++i) {
    SCOPED_TRACE(i);
    TempDir dir;
    writePlist(dir / kFileName, GetParam(), [&](plist_t root) {
      plist_dict_set_item(root, "VantrelSiteID", plist_new_string("site-42"));
      plist_dict_set_item(root, "Extra", badValues[i]());
    });
    const auto outcome = load(dir);
    EXPECT_FALSE(outcome.siteID);
    EXPECT_EQ(outcome.lines, std::vector<std::string>{kMalformed});
  }
}

TEST_P(SiteIDFromPlist, missingKeyIsNamedWithItsFile) {
  TempDir dir;
  writePlist(dir / kFileName, GetParam(), [](plist_t root) {
    plist_dict_set_item(root, "VantrelSiteId", plist_new_string("wrong case"));
  });
  const auto outcome = load(dir);
  EXPECT_FALSE(outcome.siteID);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{kMissingKey});
}

INSTANTIATE_TEST_SUITE_P(Formats, SiteIDFromPlist, testing::Values(Format::xml, Format::binary),
                         [](const auto& param) {
                           return param.param == Format::xml ? std::string("xml")
                                                             : std::string("binary");
                         });

TEST(SiteID, missingFileIsReportedAsNotFound) {
  TempDir dir;
  auto outcome = load(dir);
  EXPECT_FALSE(outcome.siteID);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{kNotFound});

  std::filesystem::create_symlink(dir / "nowhere.plist", dir / kFileName);  // dangling
  outcome = load(dir);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{kNotFound});
}

TEST(SiteID, filesThatAreNotADictionaryOfStringsAreNotProperlyFormatted) {
  const std::vector<std::string> contents = {
      "",
      "VantrelSiteID = site;",
      "{\"VantrelSiteID\": \"site\"}",
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>VantrelSiteID</key>",
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>x</string></array></plist>",
      "bplist00\xff\xff\xff\xff garbage after a binary header",
      // Larger than any site-ID file has reason to be.
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>" +
          std::string(1024 * 1024, 'x') + "</string></dict></plist>",
  };
  for (const auto& content : contents) {
    SCOPED_TRACE(content.substr(0, 60));
    TempDir dir;
    writeText(dir / kFileName, content);
    const auto outcome = load(dir);
    EXPECT_FALSE(outcome.siteID);
    EXPECT_EQ(outcome.lines, std::vector<std::string>{kMalformed});
  }
  TempDir dir;
  std::filesystem::create_directory(dir / kFileName);  // present, but not a file
  const auto outcome = load(dir);
  EXPECT_EQ(outcome.lines, std::vector<std::string>{kMalformed});
}

}  // namespace
}  // namespace vntr
