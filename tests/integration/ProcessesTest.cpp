// Several host processes on one data directory, and hosts that fork: every request stored once
// and delivered once, and no process held up by another one's death.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "SandboxServer.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Host {
  std::unique_ptr<ChildProcess> process;
  fs::path errors;
};

Host startHost(const HostLayout& host, const std::vector<std::string>& arguments,
               const fs::path& errors) {
  std::vector<std::string> all{faultChildProgram(), arguments[0], host.root.string()};
  all.insert(all.end(), arguments.begin() + 1, arguments.end());
  auto options = command(all, errors);
  // ThreadSanitizer refuses new threads in the child of a threaded process unless told to let
  // it try; the library must start its own there.
  for (auto& entry : options.environment) {
    if (entry.starts_with("TSAN_OPTIONS=")) entry += ":die_after_fork=0";
  }
  return {std::make_unique<ChildProcess>(options), errors};
}

// Waits for the host to end well, with a clean standard error.
void expectClean(Host& host) {
  const auto status = host.process->wait(120s);
  const std::string errors = readFile(host.errors);
  ASSERT_TRUE(status) << "still running; stderr:\n" << errors;
  EXPECT_EQ(describeWaitStatus(*status), "exited with 0") << errors;
  EXPECT_FALSE(hasSanitizerReport(errors)) << errors;
  EXPECT_EQ(errors.find("UNIQUE constraint"), std::string::npos) << errors;
  EXPECT_EQ(errors.find("Saving event queue failed"), std::string::npos) << errors;
}

// Every sequence number in [0, count) arrived exactly once and the queue is empty.
void expectDeliveredOnce(const sandbox::SandboxServer& server, const HostLayout& host,
                         int64_t count) {
  std::set<int64_t> received;
  for (const auto& event : server.events()) {
    if (const auto seq = sequenceOf(event)) received.insert(*seq);
  }
  EXPECT_EQ(server.stats().duplicates, 0);
  EXPECT_EQ(static_cast<int64_t>(received.size()), count);
  if (!received.empty()) {
    EXPECT_EQ(*received.begin(), 0);
    EXPECT_EQ(*received.rbegin(), count - 1);
  }
  const auto contents = readStore(host.store);
  EXPECT_EQ(contents.integrity, "ok");
  EXPECT_EQ(contents.rows, 0);
}

struct SharedHost {
  TempDir dir;
  HostLayout host{dir.path()};
  sandbox::SandboxServer server{[] {
    sandbox::SandboxConfig config;
    config.batchIntervalMs = 100;
    return config;
  }()};
  SharedHost() {
    writeSiteID(host.bundle);
    EXPECT_TRUE(server.start());
  }
};

TEST(Processes, aForkedChildAndItsParentEachDeliverTheirOwnRequestsOnce) {
  SharedHost s;
  const int64_t count = scaled(200, 60);
  // The parent's first `count` are still being built when it forks: the child must drop them.
  Host host = startHost(
      s.host,
      {"fork", s.server.tagsURL(), "0", (s.dir.path() / "report").string(), std::to_string(count)},
      s.dir.path() / "stderr");
  expectClean(host);
  expectDeliveredOnce(s.server, s.host, 3 * count);
}

TEST(Processes, twoProcessesOnOneQueueStoreAndSendEachRequestOnce) {
  SharedHost s;
  const int64_t count = 300;
  std::vector<Host> hosts;
  for (int i = 0; i < 2; ++i) {
    const auto name = std::to_string(i);
    hosts.push_back(
        startHost(s.host,
                  {"run", s.server.tagsURL(), std::to_string(i * count),
                   (s.dir.path() / ("report" + name)).string(), std::to_string(count), "100"},
                  s.dir.path() / ("stderr" + name)));
  }
  for (auto& host : hosts) expectClean(host);
  expectDeliveredOnce(s.server, s.host, 2 * count);
}

TEST(Processes, aProcessKilledMidBatchDoesNotHoldUpTheOthers) {
  SharedHost s;
  sandbox::Faults slow;
  slow.delayMs = 60000;  // the first host's batch never gets its answer
  s.server.setFaults(slow);
  Host first = startHost(
      s.host, {"run", s.server.tagsURL(), "0", (s.dir.path() / "report0").string(), "50", "100"},
      s.dir.path() / "stderr0");
  ASSERT_TRUE(waitUntil([&] { return s.server.stats().batches >= 1; }, 30s));
  first.process->kill();
  s.server.setFaults({});
  Host second = startHost(
      s.host, {"run", s.server.tagsURL(), "50", (s.dir.path() / "report1").string(), "50", "100"},
      s.dir.path() / "stderr1");
  expectClean(second);
  // The second host sent its own requests and everything the first one had saved.
  const int64_t savedByFirst = readReportedCount(s.dir.path() / "report0");
  std::set<int64_t> received;
  for (const auto& event : s.server.events()) {
    if (const auto seq = sequenceOf(event)) received.insert(*seq);
  }
  for (int64_t seq = 0; seq < savedByFirst; ++seq) EXPECT_EQ(received.count(seq), 1u) << seq;
  for (int64_t seq = 50; seq < 100; ++seq) EXPECT_EQ(received.count(seq), 1u) << seq;
  EXPECT_EQ(readStore(s.host.store).rows, 0);
}

}  // namespace
}  // namespace vntr::test
