// Calls waiting for the store are packed compactly (repeated names and group left out, short
// lengths); whatever the mix, unpacking gives back every call as it was, in order.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "model/VNTRSyncEvent.hpp"

namespace vntr {
namespace {

using Build = std::tuple<VNTREventPriority, std::vector<std::string>, std::string, std::string>;

TEST(PendingBuilds, unpacksEveryCallAsPackedAcrossBuffers) {
  const std::string longText(300, 'x');  // lengths past one byte
  std::vector<Build> packed;
  for (int i = 0; i < 2000; ++i) {  // well past one 32 KiB buffer
    const auto priority = i % 7 == 0 ? VNTREventPriority::low : VNTREventPriority::high;
    std::vector<std::string> names = {"checkout"};
    if (i % 5 == 0) names = {"a", "b", ""};
    if (i % 11 == 0) names = {};
    const std::string group = i % 13 == 0 ? longText : "purchase";
    const std::string data = i % 3 == 0 ? "" : "{\"i\":" + std::to_string(i) + "}";
    packed.emplace_back(priority, names, group, i % 17 == 0 ? longText : data);
  }
  PendingBuilds pending;
  bool first = true;
  for (const auto& [priority, names, group, data] : packed) {
    EXPECT_EQ(pending.append(priority, names, group, data), first);  // one drain asked for
    first = false;
  }
  const auto buffers = pending.takeAll();
  EXPECT_GT(buffers.size(), 1u);
  std::vector<Build> unpacked;
  for (const auto& buffer : buffers) {
    PendingBuilds::forEach(buffer,
                           [&](VNTREventPriority priority, const std::vector<std::string>& names,
                               const std::string& group, std::string_view data) {
                             unpacked.emplace_back(priority, names, group, std::string(data));
                           });
  }
  EXPECT_EQ(unpacked, packed);
  EXPECT_TRUE(pending.append(VNTREventPriority::high, {"next"}, "g", "{}"));  // drain again
}

}  // namespace
}  // namespace vntr
