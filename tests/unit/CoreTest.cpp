#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <map>

#include "core/Extensions.hpp"
#include "core/MainQueue.hpp"
#include "core/ManualExecutor.hpp"
#include "core/SerialExecutor.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "core/VNTRTagManagerError.hpp"
#include "platform/linux/LinuxDeviceFacts.hpp"
#include "support/Harness.hpp"

namespace vntr {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;
using test::CapturingLog;
using test::TempDir;
TimePoint unixTime(int64_t s) { return TimePoint{std::chrono::seconds{s}}; }

TEST(Extensions, timestampsAreGmtWhateverTheLocalZoneAndTextIsCheckedAsUTF8) {
  setenv("TZ", "Europe/Helsinki", 1);  // UTC+2 in winter
  tzset();
  EXPECT_EQ(timestamp(unixTime(1572881412) + 999ms), "20191104153012");
  EXPECT_EQ(timestamp(unixTime(1577829599)), "20191231215959");  // 23:59:59 at UTC+2
  EXPECT_EQ(timestamp(unixTime(1577836800)), "20200101000000");  // midnight is hour 00
  unsetenv("TZ");
  tzset();
  EXPECT_DOUBLE_EQ(referenceDateSeconds(unixTime(978307200 + 86400)), 86400.0);
  EXPECT_EQ(fromReferenceDateSeconds(86400.0), unixTime(978307200 + 86400));
  EXPECT_TRUE(isValidUTF8("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
  // truncated, overlong, surrogate, past U+10FFFF, never valid
  for (const char* bad : {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  }
}

TEST(Enumerations, rawValuesRoundTripAndOthersAreRefused) {
  for (int64_t raw = -1; raw <= 10; ++raw) {
    EXPECT_EQ(VNTRStatistic::fromRawValue(raw).has_value(), raw >= 0 && raw < 10) << raw;
    EXPECT_EQ(makeVNTRTagManagerError(static_cast<int>(raw)).has_value(), raw >= 0 && raw < 3);
  }
  EXPECT_EQ(VNTRStatistic::allValues()[9].description(), "eventCreated");
  EXPECT_STREQ(vntrTagManagerErrorCategory().name(), "VNTRTagManager.VNTRTagManagerError");
  EXPECT_EQ(std::error_code(*makeVNTRTagManagerError(2)).value(), 2);
  for (int raw : {0, 1, 3, 4, 32, 64}) {
    EXPECT_EQ(VantrelLogLevel::fromRawValue(raw).has_value(), raw == 1 || raw == 4 || raw == 32);
  }
}

// A delegate that throws is the host's bug, not a reason to stop; preferences change safely from
// many threads (ThreadSanitizer watches).
TEST(VNTRPreferences, delegatesAndSettingsSurviveHostBugsAndManyThreads) {
  struct Throwing : VNTRTagManagerDelegate {
    void notifyForStatistic(int64_t, int64_t) override { throw std::runtime_error("host bug"); }
  };
  CapturingLog log;
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(std::make_shared<Throwing>());
  reportStatistic(VNTRStatistic::eventCreated, 1);
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(nullptr);
  reportStatistic(VNTRStatistic::eventCreated, 1);  // no delegate: nothing happens
  EXPECT_EQ(log.lines().size(), 1u);

  VNTRPreferences fresh;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&fresh, t] {
      for (int i = 0; i < 500; ++i) {
        fresh.setServerURL("https://example.invalid/" + std::to_string(t));
        fresh.setRequestTimeout(t + 1.0);
        fresh.setLogLevel(t % 2 ? VantrelLogLevel::error : VantrelLogLevel::verbose);
        fresh.setTagManagerDelegate(std::make_shared<test::RecordingDelegate>());
        fresh.setLoggingCallback(i % 2 ? nullptr : VNTRPreferences::LoggingCallback(&VNTRLog));
        (void)fresh.serverURL();
        (void)fresh.tagManagerDelegate();
        (void)fresh.loggingCallback();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(fresh.serverURL().starts_with("https://example.invalid/"));
}

// Messages are delivered later, on the main queue, in submission order, to the callback set at
// delivery; the default writes one filtered line to standard error; a throwing callback is
// survived.
TEST(Debug, deliversInOrderOnTheMainQueueToTheCallbackOfTheMoment) {
  {
    CapturingLog log;
    VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::fatal);  // not a filter here
    std::thread([] {
      for (int i = 0; i < 200; ++i) Debug(VantrelLogLevel::verbose, std::to_string(i));
    }).join();
    Debug(VantrelLogLevel::info, "a", "b", "c");
    Debug(VantrelLogLevel::error, "100% literal %s %n");
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) expected.push_back("[Verbose] " + std::to_string(i));
    expected.insert(expected.end(), {"[Info] a,b,c", "[Error] 100% literal %s %n"});
    EXPECT_EQ(log.lines(), expected);

    std::promise<void> release;
    mainQueue().post([released = release.get_future().share()] { released.wait(); });
    Debug(VantrelLogLevel::error, "late");  // submitted before the callback changes
    std::vector<std::string> replacement;
    std::atomic<bool> onMain{false};
    VNTRPreferences::sharedPreferences().setLoggingCallback([&](auto level, const auto& strings) {
      onMain = mainQueue().isCurrent();
      replacement.push_back(formatLogLine(level, strings));
    });
    release.set_value();
    test::drainMainQueue();
    EXPECT_EQ(replacement, std::vector<std::string>{"[Error] late"});
    EXPECT_TRUE(onMain);
  }
  VNTRPreferences::sharedPreferences().setLoggingCallback([](auto, const auto&) { throw 1; });
  Debug(VantrelLogLevel::error, "boom");
  test::drainMainQueue();
  VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);

  testing::internal::CaptureStderr();
  VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::warning);
  VNTRLog(VantrelLogLevel::verbose, {"hidden"});
  VNTRLog(VantrelLogLevel::warning, {"shown", "too"});
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("hidden"), std::string::npos);
  EXPECT_NE(err.find("[" + std::to_string(getpid()) + "] "), std::string::npos);
  EXPECT_NE(err.find("[Warning] shown,too\n"), std::string::npos);
}

TEST(Executors, runInOrderSurviveThrowingTasksAndRunNestedWaitsInline) {
  CapturingLog log;
  SerialExecutor queue("VNTRTest");
  std::vector<int> order;
  queue.post([] { throw std::runtime_error("task bug"); });
  for (int i = 0; i < 100; ++i) queue.post([&, i] { order.push_back(queue.isCurrent() ? i : -1); });
  std::atomic<bool> delayed{false};
  queue.postAfter(30ms, [&] { delayed = true; });
  queue.performAndWait([&] { queue.performAndWait([] {}); });  // would deadlock if it queued
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_TRUE(test::waitUntil([&] { return delayed.load(); }));
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"[Error] Unexpected exception on a library thread: task bug"});

  ManualExecutor manual;
  std::vector<std::string> ran;
  std::function<void()> tick = [&] {
    ran.push_back("tick");
    if (ran.size() < 4) manual.postAfter(100ms, tick);  // posted during advance, due inside it
  };
  manual.postAfter(2s, [&] { ran.push_back("two"); });
  manual.postAfter(100ms, tick);
  manual.post([&] { ran.push_back("now"); });
  EXPECT_TRUE(ran.empty());  // nothing runs until stepped
  manual.advanceBy(1500ms);
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "tick", "tick", "tick"}));
  EXPECT_EQ(*manual.nextDelay(), 500ms);
  manual.advanceBy(500ms);
  EXPECT_EQ(manual.pending(), 0u);
}

// Device facts: read once, with safe fallbacks, and how Linux supplies them.
const TimePoint kPinnedNow{seconds{1'700'000'000}};

// Facts are read once, even when many threads ask first; a missing install date falls back to
// the first "now" with one warning; a source that throws yields safe fallbacks.
TEST(VNTRInfo, readsEachFactOnceAndFallsBackSafely) {
  auto facts = std::make_shared<test::FakeFacts>();
  const auto installed = *facts->installed;
  facts->installed.reset();
  CapturingLog log;
  int clockReads = 0;
  VNTRInfo info(facts, [&] { return ++clockReads, kPinnedNow; });
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        mismatches += info.vntrOSAndVersion() != "TestBox-12.1" || info.language() != "en-US" ||
                      info.idfa() != "6D92078A-8246-4BA4-AE5B-76104861E7DC" ||
                      info.hardware() != "x86_64" || !info.trackingEnabled() ||
                      info.trackingDisabled() || info.firstInstall() != kPinnedNow;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(info.idfv() + info.iOSVersion() + info.sdkVersion(),
            "11111111-2222-3333-4444-55555555555512.19.9.9");
  EXPECT_EQ(info.bundleIdentifier(), "com.example.app");
  EXPECT_EQ(facts->calls.load(), 10);  // every fact asked for, each once
  EXPECT_EQ(clockReads, 1);
  const std::vector<std::string> warning = {"[Warning] No first install date found. Using now..."};
  EXPECT_EQ(log.lines(), warning);

  EXPECT_EQ(VNTRInfo(std::make_shared<test::FakeFacts>(), [] { return kPinnedNow; }).firstInstall(),
            installed);
  log.clear();
  VNTRInfo broken(std::make_shared<test::FakeFacts>(true), [] { return kPinnedNow; });
  EXPECT_EQ(broken.idfa(), VNTRInfo::kZeroUUID);
  EXPECT_EQ(broken.idfv() + broken.language() + broken.vntrOSAndVersion(), "en-");
  EXPECT_FALSE(broken.trackingEnabled() || broken.bundleIdentifier());
  EXPECT_EQ(broken.firstInstall(), kPinnedNow);
  EXPECT_EQ(log.lines(), warning);
}

/// A Linux source over files of the test's own and a pinned environment.
struct LinuxFixture {
  TempDir dir;
  std::map<std::string, std::string> environment;

  std::shared_ptr<DeviceFactsSource> facts(std::optional<std::string> appIdentity = "com.ex.app") {
    LinuxFactSources sources;
    sources.machineIdFile = dir / "machine-id";
    sources.productNameFile = dir / "product_name";
    sources.osReleaseFiles = {dir / "os-release", dir / "usr-os-release"};
    sources.environment = [env = environment](const std::string& name) {
      const auto found = env.find(name);
      return found == env.end() ? std::nullopt : std::optional<std::string>(found->second);
    };
    sources.appIdentity = std::move(appIdentity);
    return makeLinuxDeviceFacts(dir.path(), std::move(sources));
  }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(dir / name, std::ios::binary) << text;
  }
};

// The value is pinned: a change of the derivation would give every installed app a new id.
TEST(LinuxDeviceFacts, idfvIsAStablePerAppUUIDDerivedFromTheMachineId) {
  LinuxFixture fx;
  fx.write("machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
  EXPECT_EQ(fx.facts()->idfv(), "FDCEACCD-AD8E-4817-99D0-E4C7768EC447");
  EXPECT_NE(fx.facts("com.ex.other")->idfv(), fx.facts()->idfv());
  for (const char* bad : {"", "uninitialized\n", "3d1219c7c4c5404aaa1f6d2a48adfda",
                          "3d1219c7c4c5404aaa1f6d2a48adfdzz", "00000000000000000000000000000000"}) {
    fx.write("machine-id", bad);
    EXPECT_EQ(fx.facts()->idfv(), "") << bad;
  }
  std::filesystem::remove(fx.dir / "machine-id");
  EXPECT_EQ(fx.facts()->idfv(), "");
}

TEST(LinuxDeviceFacts, modelAndSystemVersionComeFromDmiAndOsReleaseOrFromTheKernel) {
  LinuxFixture fx;
  struct utsname kernel {};
  ASSERT_EQ(::uname(&kernel), 0);
  EXPECT_EQ(fx.facts()->model(), kernel.sysname);          // no DMI
  EXPECT_EQ(fx.facts()->systemVersion(), kernel.release);  // no os-release
  EXPECT_EQ(fx.facts()->hardware(), kernel.machine);

  fx.write("product_name", "  \n");
  EXPECT_EQ(fx.facts()->model(), kernel.sysname);
  fx.write("product_name", "Standard PC (Q35 + ICH9, 2009)\n");
  EXPECT_EQ(fx.facts()->model(), "Standard PC (Q35 + ICH9, 2009)");

  fx.write("usr-os-release", "VERSION_ID=11\n");
  EXPECT_EQ(fx.facts()->systemVersion(), "11");  // the fallback location
  fx.write("os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n");
  EXPECT_EQ(fx.facts()->systemVersion(), "12");
  fx.write("os-release", "PRETTY_VERSION_ID=9\nVERSION_ID='22.04'");
  EXPECT_EQ(fx.facts()->systemVersion(), "22.04");
  fx.write("os-release", "ID=arch\n");  // rolling releases have none
  EXPECT_EQ(fx.facts()->systemVersion(), kernel.release);

  VNTRInfo info(fx.facts(), [] { return kPinnedNow; });
  fx.write("os-release", "VERSION_ID=12");
  EXPECT_EQ(info.vntrOSAndVersion(), "StandardPC(Q35+ICH9,2009)-12");
}

TEST(LinuxDeviceFacts, languageIsTheFirstUsableLocaleAsABcp47Tag) {
  struct Case {
    std::map<std::string, std::string> environment;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {{}, "en"},
      {{{"LANG", "en_US.UTF-8"}}, "en-US"},
      {{{"LANG", "C.UTF-8"}}, "en"},
      {{{"LANG", "POSIX"}, {"LC_MESSAGES", "C"}}, "en"},
      {{{"LANG", "fr_FR.UTF-8"}, {"LC_MESSAGES", "de_AT@euro"}}, "de-AT"},
      {{{"LANG", "fr_FR"}, {"LC_ALL", "pt_BR.ISO-8859-1"}, {"LC_MESSAGES", "de"}}, "pt-BR"},
      {{{"LANG", "fr_FR"}, {"LC_ALL", "es_ES"}, {"LANGUAGE", "sv_SE:en"}}, "sv-SE"},
      {{{"LANG", "fr_FR"}, {"LANGUAGE", ":en"}}, "fr-FR"},  // empty first entry is skipped
      {{{"LANG", "es_419.UTF-8"}}, "es-419"},
      {{{"LANG", "ZH_tw"}}, "zh-TW"},
      {{{"LANG", "1x_!!"}}, "en"},
      {{{"LANG", "../../etc"}}, "en"},
  };
  for (const auto& c : cases) {
    LinuxFixture fx;
    fx.environment = c.environment;
    EXPECT_EQ(fx.facts()->language(), c.expected) << testing::PrintToString(c.environment);
  }
}

TEST(LinuxDeviceFacts, advertisingFactsAndInstallTime) {
  LinuxFixture fx;
  auto facts = fx.facts();
  EXPECT_FALSE(facts->trackingEnabled());
  // Birth times are not recorded by every file system; when one is, it is this directory's.
  if (const auto installed = facts->firstInstall()) {
    const auto age = std::chrono::system_clock::now() - *installed;
    EXPECT_TRUE(age >= -seconds(5) && age <= std::chrono::minutes(5));
  }
  EXPECT_FALSE(makeLinuxDeviceFacts(fx.dir / "absent", {})->firstInstall());
  VNTRInfo machine(makeLinuxDeviceFacts(runningExecutable().directory));  // this machine's own
  EXPECT_FALSE(machine.model().empty() || machine.language().empty());
  EXPECT_EQ(machine.vntrOSAndVersion().find(' '), std::string::npos);
}

}  // namespace
}  // namespace vntr
