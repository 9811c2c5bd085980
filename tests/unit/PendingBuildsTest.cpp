// Calls waiting for the store are packed compactly (repeated names and group left out, short
// lengths) and, past a few chunks, spilled to a file; whatever the mix and wherever they wait,
// draining gives back every call as it was, in order.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "model/PendingBuilds.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using Build = std::tuple<VNTREventPriority, std::vector<std::string>, std::string, std::string>;

std::vector<Build> mixedCalls(int count, int from) {
  const std::string longText(300, 'x');  // lengths past one byte
  std::vector<Build> calls;
  for (int i = from; i < from + count; ++i) {
    const auto priority = i % 7 == 0 ? VNTREventPriority::low : VNTREventPriority::high;
    std::vector<std::string> names = {"checkout"};
    if (i % 5 == 0) names = {"a", "b", ""};
    if (i % 11 == 0) names = {};
    const std::string group = i % 13 == 0 ? longText : "purchase";
    const std::string data = i % 3 == 0 ? "" : "{\"i\":" + std::to_string(i) + "}";
    calls.emplace_back(priority, names, group, i % 17 == 0 ? longText : data);
  }
  return calls;
}

std::vector<Build> drained(PendingBuilds& pending) {
  std::vector<Build> out;
  pending.drain([&](VNTREventPriority priority, const std::vector<std::string>& names,
                    const std::string& group, std::string_view data) {
    out.emplace_back(priority, names, group, std::string(data));
  });
  return out;
}

TEST(PendingBuilds, drainsEveryCallInOrderFromMemoryAndSpillFile) {
  test::TempDir dir;
  struct Case {
    const char* name;
    std::filesystem::path spillDirectory;
    bool spills;
  } const cases[] = {
      {"memory only", {}, false},
      {"spill file", dir.path(), true},
      {"no usable directory: memory", dir / "missing", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PendingBuilds pending(c.spillDirectory);
    for (int round = 0; round < 2; ++round) {  // the second reuses the file from its start
      const auto calls = mixedCalls(4000, round * 4000);  // many 32 KiB chunks
      bool first = true;
      for (const auto& [priority, names, group, data] : calls) {
        EXPECT_EQ(pending.append(priority, names, group, data), first);  // one drain asked for
        first = false;
      }
      EXPECT_EQ(pending.spilledBytes() > 0, c.spills);
      EXPECT_EQ(drained(pending), calls);
      EXPECT_EQ(pending.spilledBytes(), 0u);
      EXPECT_TRUE(drained(pending).empty());
    }
    EXPECT_TRUE(pending.append(VNTREventPriority::high, {"next"}, "g", "{}"));  // drain again
  }
}

}  // namespace
}  // namespace vntr
