#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "SandboxServer.hpp"
#include "fault/FaultSupport.hpp"
#include "support/TestSupport.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Where a round kills its host: while it starts (store open, start-up trim), while events are
// being built and committed, or while a batch is out and its answer is being applied.
enum class KillPoint { startup, intake, batch };

const char* name(KillPoint point) {
  switch (point) {
    case KillPoint::startup:
      return "startup";
    case KillPoint::intake:
      return "intake";
    case KillPoint::batch:
      return "batch";
  }
  return "?";
}

std::string firstFew(const std::vector<int64_t>& values) {
  std::string text;
  for (size_t i = 0; i < values.size() && i < 10; ++i) text += std::to_string(values[i]) + " ";
  return text + (values.size() > 10 ? "..." : "");
}

// How often the server saw each of the first few lost requests, for the failure message.
std::string serverView(const sandbox::SandboxServer& server, const std::vector<int64_t>& lost) {
  const std::set<int64_t> first(lost.begin(), lost.begin() + std::min<size_t>(lost.size(), 5));
  std::string text;
  for (const auto& request : server.events()) {
    const auto seq = sequenceOf(request);
    if (!seq || first.count(*seq) == 0) continue;
    const std::string id = request.value("id", "");
    text += "seq " + std::to_string(*seq) + " (" + id + ") reached the server " +
            std::to_string(server.timesReceived(id)) + " times\n";
  }
  return text;
}

// Answers that come late, leave requests out, carry errors, or do not parse. An intake round
// needs its host to fire, which it stops doing while its store is full and nothing parses.
sandbox::Faults randomFaults(std::mt19937& random, KillPoint point) {
  sandbox::Faults faults;
  faults.delayMs = static_cast<int>(random() % 8);
  faults.dropShare = random() % 3 == 0 ? 0.3 : 0.0;
  faults.errorEntries = random() % 4 == 0;
  faults.malformedBody = point != KillPoint::intake && random() % 6 == 0;
  return faults;
}

// Every round starts a host on the same data directory, lets it fire events and send batches,
// and SIGKILLs it at a random moment. After each kill the store must open, pass the integrity
// check, and hold every request the host reported saved and the server never answered. A last
// launch then sends everything the killed ones left behind.
TEST(CrashConsistency, aKilledHostKeepsEverySavedRequestUntilALaterLaunchSendsIt) {
  const auto started = std::chrono::steady_clock::now();
  TempDir dir;
  const HostLayout host(dir.path());
  writeSiteID(host.bundle);
  EventLedger ledger;  // outlives the server, which calls it
  sandbox::SandboxConfig config;
  config.batchIntervalMs = 100;
  sandbox::SandboxServer server(config);
  ASSERT_TRUE(server.start());
  ledger.attach(server);

  const uint32_t seed = std::getenv("VNTR_FAULT_SEED") != nullptr
                            ? static_cast<uint32_t>(std::stoul(std::getenv("VNTR_FAULT_SEED")))
                            : std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const int rounds = scaled(60, 50);
  int64_t nextSeq = 0;
  int64_t largestStore = 0;
  for (int round = 0; round < rounds; ++round) {
    const auto point = static_cast<KillPoint>(round % 3);
    SCOPED_TRACE("round " + std::to_string(round) + ", killed at " + name(point));
    server.setFaults(randomFaults(random, point));
    const fs::path report = dir / ("report-" + std::to_string(round));
    const fs::path errors = dir / ("stderr-" + std::to_string(round));
    const int64_t batchesBefore = ledger.batches();
    ChildProcess child(command({faultChildProgram(), "run", host.root.string(), server.tagsURL(),
                                std::to_string(nextSeq), report.string(), "1000000", "60"},
                               errors));
    ASSERT_TRUE(child.started());

    bool reached = true;
    switch (point) {
      case KillPoint::startup:
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
        break;
      case KillPoint::intake: {
        const int64_t saved = 1 + random() % 400;
        reached = waitUntil([&] { return readReportedCount(report) >= saved; }, 30s);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        break;
      }
      case KillPoint::batch: {
        const int64_t batches = batchesBefore + 1 + random() % 3;
        reached = waitUntil([&] { return ledger.batches() >= batches; }, 30s);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 6000));
        break;
      }
    }
    // A host that ended on its own crashed: that is a finding, not a kill point.
    if (const auto status = child.wait(0ms)) {
      FAIL() << "the host " << describeWaitStatus(*status) << ":\n" << readFile(errors);
    }
    child.kill();
    ASSERT_TRUE(reached) << "the host never got there:\n" << readFile(errors);

    const int64_t saved = readReportedCount(report);
    ledger.addSaved(nextSeq, saved);
    nextSeq += 1'000'000;
    const StoreContents contents = readStore(host.store);
    if (ledger.savedCount() > 0) {
      ASSERT_TRUE(contents.opened) << contents.error;
    }
    if (contents.opened) {
      ASSERT_EQ(contents.integrity, "ok");
      ASSERT_EQ(contents.error, "");
    }
    const auto missing = ledger.missingFrom(contents);
    ASSERT_TRUE(missing.empty()) << missing.size()
                                 << " saved, unanswered requests lost: " << firstFew(missing)
                                 << "\n"
                                 << serverView(server, missing) << readFile(errors);
    largestStore = std::max<int64_t>(largestStore, static_cast<int64_t>(contents.rows));
    // Each launch opened what the previous one left, without throwing it away.
    const std::string log = readFile(errors);
    EXPECT_EQ(log.find("Failed to initialize"), std::string::npos) << log;
    EXPECT_FALSE(hasSanitizerReport(log)) << log;
  }
  // The start-up trim keeps at most 10,000 requests; the check above assumes it never had to.
  EXPECT_LT(largestStore, 9000);

  // A later launch that only sends: everything owed arrives.
  server.setFaults({});
  const fs::path errors = dir / "stderr-drain";
  ChildProcess drain(command({faultChildProgram(), "run", host.root.string(), server.tagsURL(),
                              std::to_string(nextSeq), (dir / "report-drain").string(), "0", "60"},
                             errors));
  ASSERT_TRUE(drain.started());
  EXPECT_TRUE(waitUntil([&] { return ledger.owed().empty(); }, 30s))
      << ledger.owed().size() << " requests never sent: " << firstFew(ledger.owed()) << "\n"
      << readFile(errors);
  drain.kill();

  // The rounds did what they are for: requests were saved, answered and left owed at kills.
  EXPECT_GT(ledger.savedCount(), 0u);
  EXPECT_GT(ledger.answeredCount(), 0u);
  const auto seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::cout << "[ figures  ] " << rounds << " kills, " << ledger.savedCount() << " saved, "
            << ledger.answeredCount() << " answered, " << ledger.batches()
            << " batches, largest store " << largestStore << ", " << seconds << " s\n";
}

}  // namespace
}  // namespace vntr::test
