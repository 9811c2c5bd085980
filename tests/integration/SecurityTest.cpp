#include <gtest/gtest.h>
#include <httplib.h>

#include <cmath>
#include <limits>
#include <random>

#include "SandboxServer.hpp"
#include "support/Harness.hpp"

namespace vntr::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// Event data never reaches a log line, on any path, at the most verbose level: accepted, refused
// as invalid, refused for consent, sent, answered with errors, dropped or status 500, answered
// with bodies that do not parse (even one that echoes the request).
TEST(Security, noLogLineCarriesEventData) {
  const std::string marker = "M4RK3R-" + std::to_string(std::random_device{}());
  TempDir dir;
  sandbox::SandboxServer sandbox(sandboxConfig(100));
  ASSERT_TRUE(sandbox.start());
  LoopbackServer echo([](httplib::Server& server) {
    server.Post("/tags", [](const httplib::Request& request, httplib::Response& response) {
      response.set_content(request.body.substr(0, request.body.size() / 2), "application/json");
    });
  });
  CapturingLog log;
  InstalledCounter counts;
  {
    LiveRuntime app(dir.path());
    const json data = {
        {"plain", marker}, {marker, "key"}, {"nested", {{"d", {marker, {{"k", marker}}}}}}};
    json deep = json::object({{"k", marker}});
    for (int i = 0; i < 600; ++i) deep = json::object({{marker, deep}});
    const json refused[] = {{{"nan", std::nan("")}, {"k", marker}},
                            {{"bad", std::string("\xff\xfe") + marker}},
                            {{marker, std::numeric_limits<double>::infinity()}},
                            deep,
                            json::array({marker})};
    const sandbox::Faults answers[] = {{},
                                       {.errorEntries = true},
                                       {.malformedBody = true},
                                       {.dropShare = 0.5},
                                       {.statusCode = 500}};
    VNTRPreferences::sharedPreferences().setServerURL(sandbox.tagsURL());
    for (const auto& faults : answers) {
      sandbox.setFaults(faults);
      const int64_t before = counts.finishedBatches();
      for (int i = 0; i < 3; ++i) app.fireEvents({"secure", "log"}, "privacy", data);
      for (const auto& bad : refused) app.fireEvents({"secure"}, "privacy", bad);
      ASSERT_TRUE(waitUntil([&] { return counts.finishedBatches() > before; }, 30s));
    }
    VNTRPreferences::sharedPreferences().setServerURL(echo.url("/tags"));
    const int64_t before = counts[VNTRStatistic::responseUnparsable];
    app.fireEvents({"secure"}, "privacy", data);
    ASSERT_TRUE(waitUntil([&] { return counts[VNTRStatistic::responseUnparsable] > before; }, 30s));
    app.defaults().setString("IABConsent_SubjectToGDPR", "1");
    app.defaults().setString("IABConsent_ParsedPurposeConsents", "0");
    app.defaults().setString("IABConsent_ParsedVendorConsents", std::string(30, '0'));
    app.fireEvents({"secure"}, "privacy", data);
    app.storedCount();
  }
  const auto lines = log.lines();
  EXPECT_GT(lines.size(), 50u);  // the paths above did log
  for (const auto& line : lines) EXPECT_EQ(line.find("M4RK3R"), std::string::npos) << line;
}

}  // namespace
}  // namespace vntr::test
