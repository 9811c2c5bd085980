// Several host processes on one data directory, and hosts that fork: every request stored once
// and delivered once, and no process held up by another one's death.
#include <gtest/gtest.h>

#include <future>

#include "SandboxServer.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct Processes : testing::Test {
  Processes() {
    writeSiteID(host.bundle);
    EXPECT_TRUE(server.start());
  }
  // The fault child in `mode` on the shared directory, numbering its events from `firstSeq`.
  ChildProcess::Options hostProgram(const std::string& mode, int64_t firstSeq,
                                    const std::vector<std::string>& more) {
    const std::string name = mode + std::to_string(firstSeq);
    std::vector<std::string> arguments{faultChildProgram(), mode, host.root.string(),
                                       server.tagsURL(), std::to_string(firstSeq)};
    arguments.push_back((dir / name).string());  // its report file
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto options = command(arguments, dir / (name + ".stderr"));
    // ThreadSanitizer refuses new threads in the child of a threaded process unless told to let
    // it try; the library must start its own there.
    for (auto& entry : options.environment) {
      if (entry.starts_with("TSAN_OPTIONS=")) entry += ":die_after_fork=0";
    }
    return options;
  }
  // Every sequence number in `expected` arrived exactly once, nothing else did, and the queue
  // is empty.
  void expectDeliveredOnce(const std::set<int64_t>& expected) {
    std::multiset<int64_t> received;
    for (const auto& event : server.events()) received.insert(sequenceOf(event).value_or(-1));
    EXPECT_EQ(received, std::multiset<int64_t>(expected.begin(), expected.end()));
    const auto contents = readStore(host.store);
    EXPECT_EQ(contents.integrity, "ok");
    EXPECT_EQ(contents.rows, 0);
  }
  TempDir dir;
  HostLayout host{dir.path()};
  sandbox::SandboxServer server{sandboxConfig(100)};
};

std::set<int64_t> range(int64_t from, int64_t to) {
  std::set<int64_t> out;
  for (int64_t i = from; i < to; ++i) out.insert(i);
  return out;
}

// The parent's first `count` are still being built when it forks: the child must drop them, and
// each side delivers its own once.
TEST_F(Processes, aForkedChildAndItsParentEachDeliverTheirOwnRequestsOnce) {
  const int64_t count = scaled(200, 60);
  const Ended ended = runToEnd(hostProgram("fork", 0, {std::to_string(count)}), 120s);
  EXPECT_EQ(ended.problem(), "");
  expectDeliveredOnce(range(0, 3 * count));
}

// A host killed while its batch waits for an answer holds up no other: two hosts started next
// share the queue, and between them send their own requests and all the killed one saved, each
// once, without a constraint or save failure.
TEST_F(Processes, aQueueSharedByProcessesSendsEachRequestOnceThoughOneIsKilledMidBatch) {
  server.setFaults({.delayMs = 60000});  // the first host's batch never gets its answer
  ChildProcess first(hostProgram("run", 0, {"50", "100"}));
  ASSERT_TRUE(waitUntil(
      [&] { return server.stats().batches >= 1 && readReportedCount(dir / "run0") == 50; }, 30s));
  first.kill();
  server.setFaults({});
  std::vector<std::future<Ended>> hosts;
  for (const int64_t firstSeq : {1000, 2000}) {
    hosts.push_back(std::async(std::launch::async, [this, firstSeq] {
      return runToEnd(hostProgram("run", firstSeq, {"300", "100"}), 120s);
    }));
  }
  for (auto& running : hosts) {
    const Ended ended = running.get();
    EXPECT_EQ(ended.problem(), "");
    for (const char* error : {"UNIQUE constraint", "Saving event queue failed"}) {
      EXPECT_EQ(ended.err.find(error), std::string::npos) << ended.err;
    }
  }
  auto expected = range(0, 50);
  expected.merge(range(1000, 1300));
  expected.merge(range(2000, 2300));
  expectDeliveredOnce(expected);
}

}  // namespace
}  // namespace vntr::test
