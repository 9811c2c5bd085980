#include <gtest/gtest.h>
#include <plist/plist.h>
#include <pthread.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/PropertyList.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::TempDir;

// A binary property list: the root dictionary {"VantrelSiteID": "site", "deep": [[[...]]]}
// with `levels` nested arrays; or, with `selfReference`, an array that contains itself.
std::string binaryPlist(size_t levels, bool selfReference = false) {
  std::vector<std::string> objects;
  auto ref = [](uint32_t index) {
    return std::string{static_cast<char>(index >> 24), static_cast<char>(index >> 16),
                       static_cast<char>(index >> 8), static_cast<char>(index)};
  };
  if (selfReference) {
    objects.push_back("\xA1" + ref(0));
  } else {
    objects.push_back("\xD2" + ref(1) + ref(2) + ref(3) + ref(4));
    objects.push_back(
        "\x5D"
        "VantrelSiteID");
    objects.push_back(
        "\x54"
        "deep");
    objects.push_back(
        "\x54"
        "site");
    for (size_t i = 0; i < levels; ++i) {
      objects.push_back(i + 1 < levels ? "\xA1" + ref(static_cast<uint32_t>(5 + i)) : "\xA0");
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
  bytes += std::string(6, '\0') + "\x04\x04";
  bytes += std::string(4, '\0') + ref(static_cast<uint32_t>(objects.size()));
  bytes += std::string(8, '\0');
  bytes += std::string(4, '\0') + ref(table);
  return bytes;
}

std::string xmlPlist(size_t levels, const std::string& open = "<array>") {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>VantrelSiteID</key><string>site</string><key>deep</key>";
  for (size_t i = 0; i < levels; ++i) text += open;
  for (size_t i = 0; i < levels; ++i) text += "</array>";
  return text + "</dict></plist>\n";
}

// Reads `bytes` as a property list on a thread with a 512 KiB stack, as a host's worker thread
// may have; libplist recurses once per nesting level while it builds and frees the tree.
std::optional<PropertyListDictionary> readOnSmallStack(const std::string& bytes) {
  TempDir dir;
  const auto file = dir / "list.plist";
  std::ofstream(file, std::ios::binary) << bytes;
  struct Call {
    std::filesystem::path file;
    std::optional<PropertyListDictionary> result;
  } call{file, std::nullopt};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 512 * 1024);
  pthread_t thread;
  const int created = pthread_create(
      &thread, &attributes,
      [](void* argument) -> void* {
        auto* c = static_cast<Call*>(argument);
        c->result = readPropertyListDictionary(c->file);
        return nullptr;
      },
      &call);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(created, 0);
  if (created == 0) pthread_join(thread, nullptr);
  return call.result;
}

std::optional<std::string> siteIDIn(const std::optional<PropertyListDictionary>& entries) {
  if (!entries) return std::nullopt;
  const auto found = entries->find("VantrelSiteID");
  return found == entries->end() ? std::nullopt : found->second;
}

TEST(PropertyList, readsNestingUpToTheLimitInBothFormats) {
  EXPECT_EQ(siteIDIn(readOnSmallStack(binaryPlist(100))), "site");
  EXPECT_EQ(siteIDIn(readOnSmallStack(xmlPlist(100))), "site");
  EXPECT_EQ(siteIDIn(readOnSmallStack(xmlPlist(100, "<array >"))), "site");
}

TEST(PropertyList, refusesDeepNestingBeforeLibplistRecursesThroughIt) {
  EXPECT_EQ(readOnSmallStack(binaryPlist(kMaxPropertyListDepth + 1)), std::nullopt);
  // Deep enough to exhaust the small stack, still well under the size limit.
  EXPECT_EQ(readOnSmallStack(binaryPlist(50'000)), std::nullopt);
  EXPECT_EQ(readOnSmallStack(xmlPlist(60'000)), std::nullopt);
  EXPECT_EQ(readOnSmallStack(binaryPlist(1, /*selfReference=*/true)), std::nullopt);
}

TEST(PropertyList, countsNestingTheWayLibplistReadsComments) {
  // "<!-->" does not end a comment for libplist, so the "</array>" after it is comment text and
  // every repetition nests one level deeper.
  const std::string hidden = xmlPlist(kMaxPropertyListDepth + 10, "<array><!--></array>-->");
  plist_t parsed = nullptr;
  plist_from_memory(hidden.data(), static_cast<uint32_t>(hidden.size()), &parsed);
  ASSERT_NE(parsed, nullptr);  // libplist itself accepts it
  plist_free(parsed);
  EXPECT_EQ(readOnSmallStack(hidden), std::nullopt);

  // Containers inside comments, instructions and CDATA are not counted.
  const std::string commented = xmlPlist(1, "<!--" + std::string(200, '.') + "--><array>");
  std::string skipped = "<?xml version=\"1.0\"?><!DOCTYPE plist [<!-- <array> -->]>";
  skipped += "<plist><dict><key>VantrelSiteID</key><string><![CDATA[";
  for (int i = 0; i < 200; ++i) skipped += "<array>";
  skipped += "]]></string></dict></plist>";
  std::string expected;
  for (int i = 0; i < 200; ++i) expected += "<array>";
  EXPECT_EQ(siteIDIn(readOnSmallStack(commented)), "site");
  EXPECT_EQ(siteIDIn(readOnSmallStack(skipped)), expected);
}

}  // namespace
}  // namespace vntr
