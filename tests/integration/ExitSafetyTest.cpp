#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <string>

#include "SandboxServer.hpp"
#include "fault/FaultSupport.hpp"
#include "support/TestSupport.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Every round starts a host whose own thread keeps firing events, and ends the host's main
// thread, by returning from main or by calling exit, while the first batch starts the transport,
// while a batch is in flight, while the batch timer is armed, or at a random moment. Some rounds
// send to a TLS server the transport refuses, so OpenSSL is at work when the process ends. The host
// must exit with status 0, no sanitizer may report anything, and the store must keep every saved
// request that was not answered.
TEST(ExitSafety, aHostEndingWhileTheLibraryWorksExitsCleanlyAndKeepsItsRequests) {
  const auto started = std::chrono::steady_clock::now();
  TempDir dir;
  EventLedger ledger;  // outlives the server, which calls it
  sandbox::SandboxConfig config;
  config.batchIntervalMs = 1000;
  sandbox::SandboxServer server(config);
  ASSERT_TRUE(server.start());
  ledger.attach(server);
  std::unique_ptr<UntrustedTLSServer> tls;
  if (const auto certificate = makeSelfSignedCertificate(dir.path())) {
    tls = std::make_unique<UntrustedTLSServer>(*certificate);
  }
  if (!tls || !tls->running()) {
    std::cout << "[ note     ] openssl could not make a certificate: no TLS rounds\n";
    tls.reset();
  }

  const uint32_t seed = std::getenv("VNTR_FAULT_SEED") != nullptr
                            ? static_cast<uint32_t>(std::stoul(std::getenv("VNTR_FAULT_SEED")))
                            : std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::array<const char*, 4> points = {"start", "inflight", "timer", "random"};
  const int rounds = 100;
  int tlsRounds = 0;
  int round = 0;
  for (; round < rounds; ++round) {
    const std::string how = round % 2 == 0 ? "return" : "exit";
    const std::string point = points[static_cast<size_t>(round / 2) % points.size()];
    const bool overTLS = tls && round % 4 == 3;
    tlsRounds += overTLS ? 1 : 0;
    SCOPED_TRACE("round " + std::to_string(round) + ": " + how + " at " + point +
                 (overTLS ? " over TLS" : ""));
    sandbox::Faults faults;
    faults.delayMs = 20 + static_cast<int>(random() % 100);
    server.setFaults(faults);
    const HostLayout host(dir / ("host-" + std::to_string(round)));
    writeSiteID(host.bundle);
    const int64_t firstSeq = int64_t{round} * 1'000'000;
    const fs::path report = host.root / "report";
    const fs::path errors = host.root / "stderr";
    ChildProcess child(command(
        {faultChildProgram(), "exit", host.root.string(), overTLS ? tls->url() : server.tagsURL(),
         std::to_string(firstSeq), report.string(), how, point, std::to_string(random())},
        errors));
    ASSERT_TRUE(child.started());
    const auto status = child.wait(60s);
    ASSERT_TRUE(status.has_value()) << "the host never finished exiting:\n" << readFile(errors);
    const std::string log = readFile(errors);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << "the host " << describeWaitStatus(*status) << ":\n"
        << log;
    EXPECT_FALSE(hasSanitizerReport(log)) << log;

    ledger.addSaved(firstSeq, readReportedCount(report));
    const StoreContents contents = readStore(host.store);
    if (contents.exists) {
      ASSERT_TRUE(contents.opened) << contents.error;
      ASSERT_EQ(contents.integrity, "ok");
    }
    const auto missing = ledger.missingFrom(contents, firstSeq);
    EXPECT_TRUE(missing.empty()) << missing.size() << " saved, unanswered requests lost";
    if (testing::Test::HasFailure()) break;
  }
  if (tls) {
    EXPECT_EQ(tls->requests(), 0) << "a request got through an untrusted certificate";
  }
  EXPECT_GT(ledger.savedCount(), 0u);
  const auto seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::cout << "[ figures  ] " << round << " exits (" << tlsRounds << " over TLS), "
            << ledger.savedCount() << " saved, " << ledger.answeredCount() << " answered, "
            << seconds << " s\n";
}

}  // namespace
}  // namespace vntr::test
