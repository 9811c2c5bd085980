#include <gtest/gtest.h>

#include <vntr/VNTRTagManager.hpp>

#include "Runtime.hpp"
#include "model/VNTREventPriority.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

TEST(VNTRTagManagerIntake, checksTheGroupBeforeTheEvents) {
  test::CapturingLog log;
  Runtime runtime(RuntimeOptions{});
  auto& manager = runtime.tagManager();
  manager.fireEvents({}, "", nlohmann::json::object(), VNTREventPriority::high, true);
  manager.fireEvents({"a"}, "", nlohmann::json::object(), VNTREventPriority::high, true);
  manager.fireEvents({}, "group", nlohmann::json::object(), VNTREventPriority::high, true);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[Error] No event group provided",
                                                   "[Error] No event group provided",
                                                   "[Error] No events provided"}));
}

}  // namespace
}  // namespace vntr
