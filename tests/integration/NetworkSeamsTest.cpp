// The library on real threads against the sandbox: the consent check goes where the server is,
// a server refusing bodies as too large cannot block the queue, and a redirect is an answer,
// never a second destination for event data.

#include <gtest/gtest.h>
#include <httplib.h>

#include <thread>
#include <vntr/VNTRTagManager.hpp>

#include "SandboxServer.hpp"
#include "facade/TagManagerCore.hpp"
#include "support/Harness.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using test::LiveRuntime;
using test::waitUntil;

/// Restores the process-wide network preferences a test changes.
struct PreferencesGuard {
  ~PreferencesGuard() {
    auto& preferences = VNTRPreferences::sharedPreferences();
    preferences.setServerURL(VNTRPreferences::kDefaultServerURL);
    preferences.setConsentCheckURL("");
  }
};

TEST(NetworkSeams, consentCheckFollowsTheServerUnlessItsURLIsSet) {
  for (const bool explicitURL : {false, true}) {
    SCOPED_TRACE(explicitURL);
    PreferencesGuard guard;
    test::TempDir dir;
    sandbox::SandboxConfig needsConsent;
    needsConsent.needsConsent = true;
    sandbox::SandboxServer tags(needsConsent), consent(needsConsent);
    ASSERT_TRUE(tags.start() && consent.start());
    sandbox::SandboxServer& checked = explicitURL ? consent : tags;
    auto& preferences = VNTRPreferences::sharedPreferences();
    preferences.setServerURL(tags.tagsURL());
    if (explicitURL) preferences.setConsentCheckURL(consent.consentURL());
    LiveRuntime app(dir.path(), {.notSubjectToGdpr = false, .consentCheckURL = ""});
    app.fireEvents({"refused"}, "g");  // the first call decides consent and asks the server
    ASSERT_TRUE(waitUntil([&] { return checked.stats().consentChecks == 1; }, 10s));
    EXPECT_FALSE(app.runtime().tagManager().hasGdprConsent());

    checked.setNeedsConsent(false);
    app.defaults().setString("IABConsent_ParsedVendorConsents", "1");  // decide again
    ASSERT_TRUE(waitUntil([&] { return app.runtime().tagManager().hasGdprConsent(); }, 10s));
    app.fireEvents({"accepted"}, "g");
    EXPECT_TRUE(waitUntil([&] { return tags.stats().events == 1; }, 10s));
    EXPECT_EQ(tags.stats().consentChecks + consent.stats().consentChecks, 2);
  }
}

TEST(NetworkSeams, aServerRefusingEveryBodyAsTooLargeCannotBlockTheQueue) {
  PreferencesGuard guard;
  test::TempDir dir;
  sandbox::SandboxServer tags;
  ASSERT_TRUE(tags.start());
  tags.setFaults({.statusCode = 413, .malformedBody = true});  // as a proxy answers, in HTML
  VNTRPreferences::sharedPreferences().setServerURL(tags.tagsURL());
  LiveRuntime app(dir.path());
  for (int i = 0; i < 4; ++i) app.fireEvents({"e"}, "g", {{"i", i}});
  ASSERT_TRUE(waitUntil([&] { return app.storedCount() == 0; }, 20s));
  std::vector<size_t> sizes;
  for (const auto& batch : tags.batches()) sizes.push_back(batch["members"].size() - 1);
  // Four halve to two, two to one, and each request refused alone is removed.
  EXPECT_EQ(sizes, (std::vector<size_t>{4, 2, 1, 1, 1, 1}));

  tags.setFaults({});
  app.fireEvents({"after"}, "g");
  EXPECT_TRUE(waitUntil([&] { return tags.stats().answered == 1; }, 10s));
}

TEST(NetworkSeams, aRedirectIsTheAnswerAndEventDataGoesNowhereElse) {
  PreferencesGuard guard;
  test::TempDir dir;
  test::CapturingLog log;
  sandbox::SandboxServer elsewhere;
  ASSERT_TRUE(elsewhere.start());
  httplib::Server redirector;
  redirector.Post("/tags", [&](const httplib::Request&, httplib::Response& response) {
    response.set_redirect(elsewhere.tagsURL(), 307);
  });
  const int port = redirector.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { redirector.listen_after_bind(); });
  ASSERT_TRUE(waitUntil([&] { return redirector.is_running(); }));
  VNTRPreferences::sharedPreferences().setServerURL("http://127.0.0.1:" + std::to_string(port) +
                                                    "/tags");
  {
    LiveRuntime app(dir.path());
    app.fireEvents({"e"}, "g");
    EXPECT_TRUE(waitUntil(
        [&] {
          for (const auto& line : log.lines()) {
            if (line.find("failed: HTTP status 307") != std::string::npos) return true;
          }
          return false;
        },
        10s));
    EXPECT_EQ(app.storedCount(), 1);
  }
  redirector.stop();
  serving.join();
  EXPECT_EQ(elsewhere.stats().batches, 0);
}

}  // namespace
}  // namespace vntr
