#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "SandboxServer.hpp"
#include "fault/FaultSupport.hpp"
#include "support/LiveRuntime.hpp"
#include "support/TestSupport.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using nlohmann::json;

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

// Runs the fault child as a host that fires `events` requests to `url`, waits until they are
// answered and returns normally; its exit status.
int runHost(const fs::path& root, const std::string& url, int events, mode_t umask,
            std::vector<std::string> environment = {}) {
  auto options = command({faultChildProgram(), "run", root.string(), url, "0",
                          (root / "report").string(), std::to_string(events), "30"},
                         root / "stderr");
  options.umask = umask;
  options.environment.insert(options.environment.end(), environment.begin(), environment.end());
  ChildProcess child(options);
  const auto status = child.wait(60s);
  return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

// Whatever the host's umask (here none at all), the store and its companions and the user
// defaults are readable by the user only, and the directories the library makes are the user's
// alone. A store file found with a looser mode is tightened at the next launch.
TEST(Security, storeAndDefaultsFilesAreTheUsersAlone) {
  TempDir dir;
  const HostLayout host(dir.path());
  writeSiteID(host.bundle);
  sandbox::SandboxServer server;
  ASSERT_TRUE(server.start());
  ASSERT_EQ(runHost(host.root, server.tagsURL(), 20, 0), 0) << readFile(host.root / "stderr");
  ASSERT_TRUE(fs::exists(host.store));
  for (const fs::path& file : {host.store, fs::path(host.store.string() + "-wal"),
                               fs::path(host.store.string() + "-shm"), host.defaults}) {
    if (fs::exists(file)) {
      EXPECT_EQ(modeOf(file), 0600u) << file;
    }
  }
  EXPECT_EQ(modeOf(host.documents) & 077, 0u) << std::oct << modeOf(host.documents);
  EXPECT_EQ(modeOf(host.defaults.parent_path()) & 077, 0u);

  ::chmod(host.store.c_str(), 0644);
  ASSERT_EQ(runHost(host.root, server.tagsURL(), 5, 0), 0) << readFile(host.root / "stderr");
  EXPECT_EQ(modeOf(host.store), 0600u);
}

// No setting of the library turns certificate checks off: whichever way the server URL names an
// untrusted server, and whatever a host's environment says about certificate bundles, no
// request gets through.
TEST(Security, certificateVerificationCannotBeTurnedOff) {
  TempDir dir;
  const auto certificate = makeSelfSignedCertificate(dir.path());
  if (!certificate) GTEST_SKIP() << "the openssl program could not make a certificate";
  UntrustedTLSServer server(*certificate);
  ASSERT_TRUE(server.running());
  const std::string port = std::to_string(server.port());
  {
    InstalledCounter counts;
    QuietLog quiet;
    LiveRuntime app(dir / "app");
    for (const std::string& url :
         {"https://127.0.0.1:" + port + "/tags", "HTTPS://127.0.0.1:" + port + "/tags",
          "https://localhost:" + port + "/tags", "https://127.0.0.1:" + port + "//tags?x=1"}) {
      SCOPED_TRACE(url);
      const int64_t before = counts.finishedBatches();
      VNTRPreferences::sharedPreferences().setServerURL(url);
      app.fireEvents({"secure"}, "tls", {{"url", url}});
      // Two more batches: one may have been on its way to the previous URL.
      ASSERT_TRUE(waitUntil([&] { return counts.finishedBatches() >= before + 2; }, 30s));
    }
    EXPECT_EQ(counts[VNTRStatistic::responseReceived], 0);
    EXPECT_EQ(app.storedCount(), 4);
  }
  // A host process, as it is and with the variables that make other programs trust another
  // certificate bundle; each runs two seconds, and nothing it stores gets through.
  const HostLayout host(dir / "host");
  writeSiteID(host.bundle);
  const std::string cert = certificate->certificate.string();
  const std::string certDir = certificate->certificate.parent_path().string();
  for (const bool withEnvironment : {false, true}) {
    auto options = command({faultChildProgram(), "run", host.root.string(), server.url(), "0",
                            (host.root / "report").string(), "3", "2"},
                           host.root / "stderr");
    if (withEnvironment) {
      options.environment.insert(options.environment.end(),
                                 {"CURL_CA_BUNDLE=" + cert, "SSL_CERT_FILE=" + cert,
                                  "SSL_CERT_DIR=" + certDir, "CURL_HOME=" + certDir});
    }
    ChildProcess child(options);
    const auto status = child.wait(60s);
    ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
        << readFile(host.root / "stderr");
  }
  EXPECT_EQ(server.requests(), 0);
  EXPECT_EQ(readStore(host.store).rows, 6);
}

// Event data never reaches a log line, on any path: accepted, refused as invalid, refused for
// consent, sent, answered with errors, answered with bodies that do not parse (even a body that
// echoes the request), at the most verbose level.
TEST(Security, noLogLineCarriesEventData) {
  const std::string marker = "M4RK3R-" + std::to_string(std::random_device{}());
  TempDir dir;
  sandbox::SandboxConfig config;
  config.batchIntervalMs = 100;
  sandbox::SandboxServer sandbox(config);
  ASSERT_TRUE(sandbox.start());
  // A server that echoes half of each batch back: the events' own data, as a body that does not
  // parse.
  httplib::Server echo;
  echo.Post("/tags", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.body.substr(0, request.body.size() / 2), "application/json");
  });
  const int echoPort = echo.bind_to_any_port("127.0.0.1");
  std::thread echoThread([&] { echo.listen_after_bind(); });

  CapturingLog log;
  InstalledCounter counts;
  {
    LiveRuntime app(dir.path());
    const json data = {{"plain", marker},
                       {marker, "as a key"},
                       {"nested", {{"deeper", {marker, {{"k", marker}}}}}}};
    json deep = json::object({{"k", marker}});
    for (int i = 0; i < 600; ++i) deep = json::object({{marker, deep}});
    const std::vector<json> refused = {
        {{"nan", std::nan("")}, {"k", marker}},
        {{"bad", std::string("\xff\xfe") + marker}},
        {{marker, std::numeric_limits<double>::infinity()}},
        deep,
        json::array({marker}),
    };
    const std::vector<sandbox::Faults> answers = [] {
      std::vector<sandbox::Faults> faults(5);
      faults[1].errorEntries = true;
      faults[2].malformedBody = true;
      faults[3].dropShare = 0.5;
      faults[4].statusCode = 500;
      return faults;
    }();
    VNTRPreferences::sharedPreferences().setServerURL(sandbox.tagsURL());
    for (const auto& faults : answers) {
      sandbox.setFaults(faults);
      const int64_t before = counts.finishedBatches();
      for (int i = 0; i < 3; ++i) app.fireEvents({"secure", "log"}, "privacy", data);
      for (const auto& bad : refused) app.fireEvents({"secure"}, "privacy", bad);
      ASSERT_TRUE(waitUntil([&] { return counts.finishedBatches() > before; }, 30s));
    }
    VNTRPreferences::sharedPreferences().setServerURL(
        "http://127.0.0.1:" + std::to_string(echoPort) + "/tags");
    const int64_t before = counts[VNTRStatistic::responseUnparsable];
    app.fireEvents({"secure"}, "privacy", data);
    ASSERT_TRUE(waitUntil([&] { return counts[VNTRStatistic::responseUnparsable] > before; }, 30s));
    // Refused for consent.
    app.defaults().setString("IABConsent_SubjectToGDPR", "1");
    app.defaults().setString("IABConsent_ParsedPurposeConsents", "0");
    app.defaults().setString("IABConsent_ParsedVendorConsents", std::string(30, '0'));
    app.fireEvents({"secure"}, "privacy", data);
    app.storedCount();
  }
  echo.stop();
  echoThread.join();
  const auto lines = log.lines();
  EXPECT_GT(lines.size(), 50u);  // the paths above did log
  for (const auto& line : lines) {
    EXPECT_EQ(line.find(marker), std::string::npos) << line;
    EXPECT_EQ(line.find("M4RK3R"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace vntr::test
