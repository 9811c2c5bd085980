#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <fstream>
#include <map>

#include "platform/linux/LinuxDeviceFacts.hpp"
#include "support/Harness.hpp"

namespace vntr {
namespace {

using std::chrono::seconds;
using test::CapturingLog;
using test::TempDir;

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
  EXPECT_EQ(facts->idfa(), "00000000-0000-0000-0000-000000000000");
  EXPECT_FALSE(facts->trackingEnabled() || facts->sdkVersion().empty());
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
