#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/utsname.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <thread>

#include "core/SipHash.hpp"
#include "core/VNTRInfo.hpp"
#include "platform/linux/LinuxDeviceFacts.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using std::chrono::seconds;
using test::CapturingLog;
using test::TempDir;

const TimePoint kPinnedNow{seconds{1'700'000'000}};
const TimePoint kInstalled{seconds{1'600'000'000}};

/// Pinned facts that count how often each is asked for.
class FakeFacts : public DeviceFactsSource {
 public:
  std::string idfa() override { return count("idfa", "6D92078A-8246-4BA4-AE5B-76104861E7DC"); }
  std::string idfv() override { return count("idfv", ""); }
  std::string model() override { return count("model", "iPad Pro"); }
  std::string systemVersion() override { return count("systemVersion", "12.1"); }
  bool trackingEnabled() override {
    count("trackingEnabled", "");
    return true;
  }
  std::string sdkVersion() override { return count("sdkVersion", "1.2.3"); }
  std::string language() override { return count("language", "de-DE"); }
  std::string hardware() override { return count("hardware", "iPad8,1"); }
  std::optional<std::string> bundleIdentifier() override {
    count("bundleIdentifier", "");
    return std::nullopt;
  }
  std::optional<TimePoint> firstInstall() override {
    count("firstInstall", "");
    return installed;
  }

  std::optional<TimePoint> installed;
  std::map<std::string, int> calls() {
    std::scoped_lock lock(mutex_);
    return calls_;
  }

 private:
  std::string count(const std::string& name, std::string value) {
    std::scoped_lock lock(mutex_);
    ++calls_[name];
    return value;
  }
  std::mutex mutex_;
  std::map<std::string, int> calls_;
};

/// A source whose every member throws, like a broken host-supplied one.
class ThrowingFacts : public DeviceFactsSource {
  [[noreturn]] static void fail() { throw std::runtime_error("unavailable"); }

 public:
  std::string idfa() override { fail(); }
  std::string idfv() override { fail(); }
  std::string model() override { fail(); }
  std::string systemVersion() override { fail(); }
  bool trackingEnabled() override { fail(); }
  std::string sdkVersion() override { fail(); }
  std::string language() override { fail(); }
  std::string hardware() override { fail(); }
  std::optional<std::string> bundleIdentifier() override { fail(); }
  std::optional<TimePoint> firstInstall() override { fail(); }
};

// Facts are read once, even when many threads ask first; a missing install date falls back to
// the first "now" with one warning; a source that throws yields safe fallbacks.
TEST(VNTRInfo, readsEachFactOnceAndFallsBackSafely) {
  auto facts = std::make_shared<FakeFacts>();
  CapturingLog log;
  int clockReads = 0;
  VNTRInfo info(facts, [&] { return ++clockReads, kPinnedNow; });
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        mismatches += info.vntrOSAndVersion() != "iPadPro-12.1" || info.language() != "de-DE" ||
                      info.idfa() != "6D92078A-8246-4BA4-AE5B-76104861E7DC" ||
                      info.hardware() != "iPad8,1" || !info.trackingEnabled() ||
                      info.trackingDisabled() || info.firstInstall() != kPinnedNow;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(info.idfv() + info.iOSVersion() + info.sdkVersion(), "12.11.2.3");
  EXPECT_FALSE(info.bundleIdentifier());
  for (const auto& [name, calls] : facts->calls()) EXPECT_EQ(calls, 1) << name;
  EXPECT_EQ(facts->calls().size(), 10u);
  EXPECT_EQ(clockReads, 1);
  const std::vector<std::string> warning = {"[Warning] No first install date found. Using now..."};
  EXPECT_EQ(log.lines(), warning);

  facts = std::make_shared<FakeFacts>();
  facts->installed = kInstalled;
  EXPECT_EQ(VNTRInfo(facts, [] { return kPinnedNow; }).firstInstall(), kInstalled);
  EXPECT_EQ(log.lines(), warning);

  log.clear();
  VNTRInfo broken(std::make_shared<ThrowingFacts>(), [] { return kPinnedNow; });
  EXPECT_EQ(broken.idfa(), VNTRInfo::kZeroUUID);
  EXPECT_EQ(broken.idfv() + broken.language() + broken.vntrOSAndVersion(), "en-");
  EXPECT_FALSE(broken.trackingEnabled() || broken.bundleIdentifier());
  EXPECT_EQ(broken.firstInstall(), kPinnedNow);
  EXPECT_EQ(log.lines(), warning);
}

TEST(SipHash, matchesTheReferenceVectors) {
  std::array<uint8_t, 16> key{};
  for (uint8_t i = 0; i < 16; ++i) key[i] = i;
  const std::array<std::array<uint8_t, 16>, 3> expected = {{
      {0xa3, 0x81, 0x7f, 0x04, 0xba, 0x25, 0xa8, 0xe6, 0x6d, 0xf6, 0x72, 0x14, 0xc7, 0x55, 0x02,
       0x93},
      {0xda, 0x87, 0xc1, 0xd8, 0x6b, 0x99, 0xaf, 0x44, 0x34, 0x76, 0x59, 0x11, 0x9b, 0x22, 0xfc,
       0x45},
      {0x81, 0x77, 0x22, 0x8d, 0xa4, 0xa4, 0x5d, 0xc7, 0xfc, 0xa3, 0x8b, 0xde, 0xf6, 0x0a, 0xff,
       0xe4},
  }};
  std::string message;
  for (size_t length = 0; length < expected.size(); ++length) {
    EXPECT_EQ(sipHash128(key, message), expected[length]) << "length " << length;
    message += static_cast<char>(length);
  }
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

TEST(LinuxDeviceFacts, idfvIsAStablePerAppUUIDDerivedFromTheMachineId) {
  LinuxFixture fx;
  fx.write("machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
  const std::string idfv = fx.facts()->idfv();
  EXPECT_TRUE(std::regex_match(
      idfv, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << idfv;
  EXPECT_EQ(fx.facts()->idfv(), idfv);
  EXPECT_NE(fx.facts("com.ex.other")->idfv(), idfv);
  EXPECT_EQ(idfv.find("3D1219C7"), std::string::npos);  // the machine id does not leak through

  for (const std::string& bad :
       std::vector<std::string>{"", "uninitialized\n", "3d1219c7c4c5404aaa1f6d2a48adfda",
                                "3d1219c7c4c5404aaa1f6d2a48adfdzz", std::string(32, '0')}) {
    SCOPED_TRACE(bad);
    fx.write("machine-id", bad);
    EXPECT_EQ(fx.facts()->idfv(), "");
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

TEST(LinuxDeviceFacts, advertisingFactsBundleIdentifierAndInstallTime) {
  LinuxFixture fx;
  auto facts = fx.facts();
  EXPECT_EQ(facts->idfa(), "00000000-0000-0000-0000-000000000000");
  EXPECT_FALSE(facts->trackingEnabled());
  EXPECT_FALSE(facts->sdkVersion().empty());
  EXPECT_FALSE(facts->bundleIdentifier());

  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "CFBundleIdentifier", plist_new_string("com.example.host"));
  plist_dict_set_item(root, "CFBundleVersion", plist_new_uint(3));  // other types are fine here
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &xml, &length);
  std::ofstream(fx.dir / "Info.plist", std::ios::binary).write(xml, length);
  std::free(xml);
  plist_free(root);
  EXPECT_EQ(facts->bundleIdentifier(), "com.example.host");

  // Birth times are not recorded by every file system; when one is, it is this directory's.
  if (const auto installed = facts->firstInstall()) {
    const auto age = std::chrono::system_clock::now() - *installed;
    EXPECT_GE(age, -seconds(5));
    EXPECT_LE(age, std::chrono::minutes(5));
  }
  LinuxFactSources missing;
  EXPECT_FALSE(makeLinuxDeviceFacts(fx.dir / "absent", missing)->firstInstall());
  VNTRInfo machine(makeLinuxDeviceFacts(runningExecutable().directory));  // this machine's own
  EXPECT_FALSE(machine.model().empty() || machine.language().empty());
  EXPECT_EQ(machine.vntrOSAndVersion().find(' '), std::string::npos);
}

}  // namespace
}  // namespace vntr
