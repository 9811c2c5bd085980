// Hosts in processes of their own (tests/integration/FaultChild.cpp), killed or ending while the
// library works: the store must stay sound and keep every saved request that was not answered.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>

#include "SandboxServer.hpp"
#include "support/Process.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Random unless VNTR_FAULT_SEED repeats a run.
std::mt19937 seeded() {
  const char* fixed = std::getenv("VNTR_FAULT_SEED");
  const uint32_t seed =
      fixed != nullptr ? static_cast<uint32_t>(std::stoul(fixed)) : std::random_device{}();
  std::cerr << "VNTR_FAULT_SEED=" << seed << "\n";
  return std::mt19937(seed);
}

// The host program fires events into the store under `host` and sends them to `url`, with no
// umask at all: its files must be the user's alone all the same.
ChildProcess::Options runHost(const HostLayout& host, const std::string& url, int64_t firstSeq,
                              const std::string& report, int events, int seconds) {
  auto options =
      command({faultChildProgram(), "run", host.root.string(), url, std::to_string(firstSeq),
               report, std::to_string(events), std::to_string(seconds)},
              host.root / "stderr");
  options.umask = 0;
  return options;
}

// After a host whose events started at `firstSeq` is gone: the store opens, is sound, and holds
// every saved, unanswered request numbered from `checkFrom` on.
void expectNothingLost(const HostLayout& host, EventLedger& ledger, int64_t firstSeq,
                       const fs::path& report, int64_t checkFrom) {
  ledger.addSaved(firstSeq, readReportedCount(report));
  const StoreContents contents = readStore(host.store);
  if (contents.exists || ledger.savedCount() > 0) {
    ASSERT_TRUE(contents.opened) << contents.error;
    ASSERT_EQ(contents.integrity, "ok");
  }
  const auto missing = ledger.missingFrom(contents, checkFrom);
  EXPECT_TRUE(missing.empty()) << missing.size() << " saved, unanswered requests lost, first "
                               << missing.front();
  const std::string log = readFile(host.root / "stderr");
  EXPECT_EQ(log.find("Failed to initialize"), std::string::npos) << log;
  EXPECT_FALSE(hasSanitizerReport(log)) << log;
}

// Every round starts a host on the same data directory and SIGKILLs it at a random moment: while
// it starts, while events are built and committed, or while a batch and its answer are out; the
// server answers late, leaves requests out, carries errors or does not parse. A last launch then
// sends everything the killed ones left behind. With no umask, the store, its companions and the
// user defaults stay the user's alone, and a store file found looser is tightened.
TEST(ProcessFaults, aKilledHostKeepsEverySavedRequestUntilALaterLaunchSendsIt) {
  TempDir dir;
  const HostLayout host(dir.path());
  writeSiteID(host.bundle);
  EventLedger ledger;  // outlives the server, which calls it
  sandbox::SandboxServer server(sandboxConfig(100));
  ASSERT_TRUE(server.start());
  ledger.attach(server);
  std::mt19937 random = seeded();
  int64_t nextSeq = 0;
  for (int round = 0; round < scaled(24, 9) && !testing::Test::HasFailure(); ++round) {
    const int point = round % 3;  // 0: start-up, 1: intake, 2: batch
    SCOPED_TRACE("round " + std::to_string(round) + ", kill point " + std::to_string(point));
    server.setFaults({.dropShare = random() % 3 == 0 ? 0.3 : 0.0,
                      .errorEntries = random() % 4 == 0,
                      // a host stops firing while its store is full and nothing parses
                      .malformedBody = point != 1 && random() % 6 == 0,
                      .delayMs = static_cast<int>(random() % 8)});
    const std::string report = (dir / ("report-" + std::to_string(round))).string();
    const int64_t batches = ledger.batches() + 1 + random() % 3;
    const int64_t saved = 1 + random() % 400;
    ChildProcess child(runHost(host, server.tagsURL(), nextSeq, report, 1'000'000, 60));
    bool reached = child.started();
    if (point == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 60000));
    if (point == 1) reached = waitUntil([&] { return readReportedCount(report) >= saved; }, 30s);
    if (point == 2) reached = waitUntil([&] { return ledger.batches() >= batches; }, 30s);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    ASSERT_FALSE(child.wait(0ms)) << "the host ended early:\n" << readFile(host.root / "stderr");
    child.kill();
    ASSERT_TRUE(reached) << "the host never got there:\n" << readFile(host.root / "stderr");
    expectNothingLost(host, ledger, nextSeq, report, 0);
    // The start-up trim keeps at most 10,000 requests; the check above assumes it never had to.
    ASSERT_LT(readStore(host.store).rows, 9000);
    nextSeq += 1'000'000;
  }
  server.setFaults({});
  ::chmod(host.store.c_str(), 0644);  // found looser, tightened at the next launch
  ChildProcess drain(runHost(host, server.tagsURL(), nextSeq, (dir / "drain").string(), 0, 60));
  EXPECT_TRUE(waitUntil([&] { return ledger.missingFrom({}).empty(); }, 30s))
      << ledger.missingFrom({}).size() << " requests never sent";
  EXPECT_GT(server.stats().answered, 0);
  const auto modeOf = [](const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
  };
  for (const std::string suffix : {"", "-wal", "-shm"}) {
    const fs::path file = host.store.string() + suffix;
    if (fs::exists(file)) {
      EXPECT_EQ(modeOf(file), 0600u) << file;
    }
  }
  EXPECT_EQ(modeOf(host.defaults), 0600u);
  EXPECT_EQ(modeOf(host.documents) & 077, 0u);
  EXPECT_EQ(modeOf(host.defaults.parent_path()) & 077, 0u);
}

// Every round starts a host whose own thread keeps firing, and ends its main thread, by
// returning from main or by calling exit, while the first batch starts the transport, while a
// batch is in flight, while the batch timer is armed, or at a random moment; every fourth round
// sends to a TLS server the transport refuses (though the host's environment names its
// certificate as trusted), so OpenSSL is at work when the process ends. The host exits with 0 and
// no sanitizer report.
TEST(ProcessFaults, aHostEndingWhileTheLibraryWorksExitsCleanlyAndKeepsItsRequests) {
  TempDir dir;
  EventLedger ledger;
  sandbox::SandboxServer server(sandboxConfig(1000));
  ASSERT_TRUE(server.start());
  ledger.attach(server);
  std::unique_ptr<UntrustedTLSServer> tls;
  const auto certificate = makeSelfSignedCertificate(dir.path());
  if (certificate) tls = std::make_unique<UntrustedTLSServer>(*certificate);
  std::mt19937 random = seeded();
  const char* points[] = {"start", "inflight", "timer", "random"};
  // Eight rounds hold each way of ending at each point once; two of them run over TLS.
  for (int round = 0; round < scaled(24, 8) && !testing::Test::HasFailure(); ++round) {
    const std::string how = round % 2 == 0 ? "return" : "exit";
    const std::string point = points[(round / 2) % 4];
    const bool overTLS = tls && tls->running() && round % 4 == 3;
    SCOPED_TRACE("round " + std::to_string(round) + ": " + how + " at " + point +
                 (overTLS ? " over TLS" : ""));
    server.setFaults({.delayMs = 20 + static_cast<int>(random() % 100)});
    const HostLayout host(dir / ("host-" + std::to_string(round)));
    writeSiteID(host.bundle);
    const int64_t firstSeq = int64_t{round} * 1'000'000;
    const fs::path report = host.root / "report";
    auto options = command(
        {faultChildProgram(), "exit", host.root.string(), overTLS ? tls->url() : server.tagsURL(),
         std::to_string(firstSeq), report.string(), how, point, std::to_string(random())},
        host.root / "stderr");
    if (overTLS) {
      const std::string cert = certificate->certificate, certDir = dir.path().string();
      options.environment.insert(options.environment.end(),
                                 {"CURL_CA_BUNDLE=" + cert, "SSL_CERT_FILE=" + cert,
                                  "SSL_CERT_DIR=" + certDir, "CURL_HOME=" + certDir});
    }
    EXPECT_EQ(runToEnd(options, 60s).problem(), "");
    expectNothingLost(host, ledger, firstSeq, report, firstSeq);
  }
  if (tls) {
    EXPECT_EQ(tls->requests(), 0) << "a request got through an untrusted certificate";
  }
  EXPECT_GT(ledger.savedCount(), 0u);
}

}  // namespace
}  // namespace vntr::test
