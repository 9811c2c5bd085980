// What a host configures from outside: its own site ID beside the property list, the request
// timeout, the directories (and the shared fallback's owner) and user defaults the library uses.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vntr/vntr.h>

#include <cmath>
#include <fstream>
#include <map>

#include "core/ProcessSettings.hpp"
#include "platform/linux/Files.hpp"
#include "platform/linux/Paths.hpp"
#include "support/Harness.hpp"

namespace vntr {
namespace {

using test::CapturingLog;
using test::TempDir;
using Lines = std::vector<std::string>;

constexpr const char* kNotFound =
    "[Error] The VantrelTagManagerSDKInfo.plist file could not be found.  All events will be "
    "ignored.";
constexpr const char* kMissingKey =
    "[Error] Could not find key \"VantrelSiteID\" in \"VantrelTagManagerSDKInfo.plist\".";
constexpr const char* kUsingHost = "[Info] Using the site ID set by the application.";

TEST(HostSiteID, isUsedOnlyWhenThePropertyListGivesNoneAndItsLinesStay) {
  enum class Plist { valid, absent, withoutKey };
  const struct {
    Plist plist;
    std::optional<std::string> host;
    std::optional<std::string> expected;
    std::vector<std::string> lines;
  } cases[] = {
      {Plist::valid, std::nullopt, "12345", {}},
      {Plist::valid, "host-1", "12345", {}},
      {Plist::absent, std::nullopt, std::nullopt, {kNotFound}},
      {Plist::absent, "host-1", "host-1", {kNotFound, kUsingHost}},
      {Plist::withoutKey, "host-1", "host-1", {kMissingKey, kUsingHost}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host.value_or("no host ID"));
    CapturingLog log;
    test::Harness h({.siteId = c.plist == Plist::valid, .hostSiteId = c.host});
    if (c.plist == Plist::withoutKey) {
      std::ofstream(h.runtime->paths().mainBundleDirectory + "/VantrelTagManagerSDKInfo.plist")
          << "<plist version=\"1.0\"><dict><key>Other</key><string>x</string></dict></plist>";
    }
    EXPECT_EQ(h.runtime->siteID(), c.expected);
    EXPECT_EQ(h.runtime->siteID(), c.expected);  // read once: no second set of lines
    EXPECT_EQ(log.lines(), c.lines);
  }
}

TEST(RequestTimeout, acceptsPositiveFiniteSecondsAndLogsAnythingElse) {
  auto& preferences = VNTRPreferences::sharedPreferences();
  const std::pair<double, bool> cases[] = {{5, true},         {0.25, true},      {1e9, true},
                                           {0, false},        {-1, false},       {NAN, false},
                                           {INFINITY, false}, {-INFINITY, false}};
  for (const auto& [value, accepted] : cases) {
    SCOPED_TRACE(value);
    CapturingLog log;
    preferences.setRequestTimeout(7);
    vntr_set_request_timeout(value);
    EXPECT_EQ(preferences.requestTimeout(), accepted ? value : 7);
    EXPECT_EQ(log.lines().size(), accepted ? 0u : 1u);
  }
  preferences.setRequestTimeout(VNTRPreferences::kDefaultRequestTimeout);
}

EnvironmentLookup fakeEnvironment(std::map<std::string, std::string> values) {
  return [values = std::move(values)](const std::string& name) -> std::optional<std::string> {
    if (const auto found = values.find(name); found != values.end()) return found->second;
    return std::nullopt;
  };
}

void writeInfoPlist(const std::filesystem::path& directory, const std::string& identifier) {
  std::ofstream(directory / "Info.plist")
      << "<plist><dict><key>CFBundleIdentifier</key>" << identifier << "</dict></plist>";
}

// Relative XDG values are invalid and ignored; without HOME the password database knows the
// user's home, and without that /tmp is used.
TEST(Paths, xdgDirectoriesWithTheirFallbacks) {
  const auto withXdg = fakeEnvironment(
      {{"HOME", "/home/u"}, {"XDG_DATA_HOME", "/data"}, {"XDG_CONFIG_HOME", "/conf"}});
  EXPECT_EQ(defaultDocumentsDirectory("app", withXdg), "/data/app");
  EXPECT_EQ(defaultUserDefaultsFile("app", withXdg), "/conf/app/UserDefaults.json");
  const auto homeOnly =
      fakeEnvironment({{"HOME", "/home/u"}, {"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", ""}});
  EXPECT_EQ(defaultDocumentsDirectory("app", homeOnly), "/home/u/.local/share/app");
  EXPECT_EQ(defaultUserDefaultsFile("app", homeOnly), "/home/u/.config/app/UserDefaults.json");
  const auto home = homeDirectory(fakeEnvironment({}));
  EXPECT_EQ(defaultDocumentsDirectory("app", fakeEnvironment({})),
            home ? *home + "/.local/share/app" : "/tmp/app-" + std::to_string(::getuid()));
}

// The library joins and splits paths as text; it must agree with std::filesystem on them.
TEST(Paths, textPathsAgreeWithStdFilesystem) {
  for (const char* text : {"", "a", "/", "/a", "a/b", "/a/b/", "a//b", "/tmp/x-1/f.json"}) {
    SCOPED_TRACE(text);
    const std::filesystem::path path(text);
    EXPECT_EQ(parentPath(text), path.parent_path().string());
    EXPECT_EQ(lastPathComponent(text), path.filename().string());
  }
  for (const auto& [directory, name] :
       {std::pair{"", "f"}, {"/", "f"}, {"/a", "f"}, {"/a/", "f"}, {"a", "b/c"}}) {
    EXPECT_EQ(joinPath(directory, name), (std::filesystem::path(directory) / name).string());
  }
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(runningExecutable().directory, self.parent_path().string());
  EXPECT_EQ(runningExecutable().name, self.filename().string());
}

TEST(Paths, appNameIsTheBundleIdentifierWhenItIsASafeDirectoryName) {
  TempDir dir;
  EXPECT_FALSE(bundleIdentifierIn(dir.path()));
  writeInfoPlist(dir.path(), "<string>com.example.host</string>");
  EXPECT_EQ(appNameFor(bundleIdentifierIn(dir.path()), "prog"), "com.example.host");
  writeInfoPlist(dir.path(), "<integer>5</integer>");
  EXPECT_FALSE(bundleIdentifierIn(dir.path()));
  for (const char* unsafe : {"", ".", "..", "../../etc", "a/b"}) {
    EXPECT_EQ(appNameFor(std::string(unsafe), "prog"), "prog") << unsafe;
  }
  EXPECT_EQ(appNameFor(std::nullopt, ""), "VNTRTagManager");
}

// The /tmp fallback directory is shared by every user of the machine.
TEST(ProcessSafety, aSharedFallbackDirectoryIsUsedOnlyWhenItIsTheUsersOwn) {
  TempDir dir;
  const struct {
    const char* name;
    char kind;  // 'd': a directory with `mode`, 'l': a link to one, 'f': a file, '-': nothing
    mode_t mode;
    const char* reason;
  } cases[] = {
      {"missing", '-', 0, "accepted"},
      {"private", 'd', 0700, "accepted"},
      {"group-writable", 'd', 0770, "others can write to it"},
      {"world-writable", 'd', 0707, "others can write to it"},
      {"symlink", 'l', 0, "it is a symbolic link"},
      {"file", 'f', 0, "it is not a directory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto path = dir / c.name;
    if (c.kind == 'd') {
      std::filesystem::create_directory(path);
      std::filesystem::permissions(path, static_cast<std::filesystem::perms>(c.mode));
    }
    if (c.kind == 'l') std::filesystem::create_directory_symlink(dir / "private", path);
    if (c.kind == 'f') std::ofstream(path) << "{}";
    EXPECT_EQ(claimPrivateDirectory(path).value_or("accepted"), c.reason);
    if (c.kind == '-' || c.mode == 0700) {
      EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
                std::filesystem::perms::owner_all);
    }
  }
  if (::getuid() == 0) {
    const auto foreign = dir / "foreign";
    ASSERT_EQ(::mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(claimPrivateDirectory(foreign).value_or("accepted"), "it belongs to uid 65534");
  }
}

// The paths are process-wide and freeze at first use, so one test walks the whole life cycle.
TEST(ProcessSettings, hostSettingsApplyUntilFirstUseThenFreeze) {
  TempDir dir;
  const auto documents = dir / "docs" / "nested";
  const auto defaultsFile = dir / "conf" / "UserDefaults.json";
  for (const auto setter :
       {vntr_set_main_bundle_path, vntr_set_documents_directory, vntr_set_user_defaults_path}) {
    for (const char* bad : {static_cast<const char*>(nullptr), "", "\xff\xfe"}) {
      EXPECT_EQ(setter(bad), VNTR_INVALID_ARGUMENT);
    }
  }
  EXPECT_TRUE(setMainBundlePath("/first/choice"));
  EXPECT_EQ(vntr_set_main_bundle_path(dir.path().c_str()), VNTR_OK);  // the last one wins
  EXPECT_EQ(vntr_set_documents_directory(documents.c_str()), VNTR_OK);
  EXPECT_EQ(vntr_set_user_defaults_path(defaultsFile.c_str()), VNTR_OK);
  const ProcessPaths& paths = processPaths();
  EXPECT_EQ(paths.mainBundleDirectory, dir.path());
  EXPECT_EQ(paths.documentsDirectory, documents);
  EXPECT_EQ(paths.userDefaultsFile, defaultsFile);
  struct stat info {};
  ASSERT_EQ(::stat(documents.c_str(), &info), 0);  // created at first use, private
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  EXPECT_FALSE(setMainBundlePath("/elsewhere"));
  EXPECT_EQ(vntr_set_documents_directory("/elsewhere"), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(&processPaths(), &paths);

  // The C functions write the standard user defaults, which live in the file set above.
  EXPECT_EQ(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0"), VNTR_OK);
  EXPECT_EQ(vntr_user_defaults_set_double("n", 2.5), VNTR_OK);
  EXPECT_EQ(vntr_user_defaults_set_bool("b", 7), VNTR_OK);
  for (const auto status :
       {vntr_user_defaults_set_string(nullptr, "x"), vntr_user_defaults_set_string("k", "\xc3"),
        vntr_user_defaults_set_double("n", NAN), vntr_user_defaults_set_bool(nullptr, 1)}) {
    EXPECT_EQ(status, VNTR_INVALID_ARGUMENT);
  }
  UserDefaults fromDisk(defaultsFile);
  EXPECT_EQ(fromDisk.subjectToGdpr(), "0");
  EXPECT_EQ(fromDisk.doubleForKey("n"), 2.5);
  EXPECT_EQ(fromDisk.objectForKey("b"), UserDefaults::Value(true));
  EXPECT_EQ(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", nullptr), VNTR_OK);
  EXPECT_FALSE(UserDefaults(defaultsFile).subjectToGdpr());
}

// The user defaults file, as the library reads and writes it.
std::string contentOf(const std::filesystem::path& file) {
  return readFileBounded(file, 1 << 20).value_or("<unreadable>");
}

void writeText(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

// Typed reads give strings only from strings and numbers from numbers and bools; members of
// other types, in a file written by someone else, are skipped. (Values written and read back:
// ProcessSettings.)
TEST(UserDefaults, eachValueIsReadOnlyAsItsTypeAndOthersAreSkipped) {
  TempDir dir;
  const auto file = dir / "UserDefaults.json";
  writeText(file, R"({"s":"x","n":0.25,"whole":3,"big":18446744073709551615,"b":true,"z":null,
                      "a":[1],"o":{}})");
  UserDefaults foreign(file);
  EXPECT_EQ(foreign.stringForKey("s"), "x");
  EXPECT_FALSE(foreign.stringForKey("n"));
  EXPECT_EQ(foreign.doubleForKey("n"), 0.25);
  EXPECT_EQ(foreign.objectForKey("whole"), UserDefaults::Value(3.0));
  EXPECT_EQ(foreign.doubleForKey("big"), 18446744073709551615.0);
  EXPECT_EQ(foreign.objectForKey("b"), UserDefaults::Value(true));
  EXPECT_EQ(foreign.doubleForKey("b"), 1.0);
  EXPECT_EQ(foreign.doubleForKey("s") + foreign.doubleForKey("missing"), 0.0);
  for (const char* key : {"z", "a", "o"}) EXPECT_FALSE(foreign.objectForKey(key)) << key;
}

TEST(UserDefaults, changesReplaceThePrivateFileWholeAndLeaveNoTemporaryBehind) {
  TempDir dir;
  const auto file = dir / "fresh" / "UserDefaults.json";
  UserDefaults defaults(file);
  defaults.setString("k", "v");
  // A reader that opened the old file keeps seeing all of it: the change replaced the file
  // instead of rewriting it in place, so nobody (and no crash) can observe a half-written one.
  std::ifstream earlier(file);
  defaults.setString("k", "w");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(earlier), {}), R"({"k":"v"})");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir / "fresh"), {}), 1);
  EXPECT_EQ(contentOf(file), R"({"k":"w"})");
}

TEST(UserDefaults, corruptFileIsReportedAndLeftAloneUntilTheNextChange) {
  for (const std::string bad : {"{not json", "[1,2]", "\"text\"", "{\"a\":\"\xff\"}"}) {
    SCOPED_TRACE(bad);
    TempDir dir;
    const auto file = dir / "UserDefaults.json";
    writeText(file, bad);
    CapturingLog log;
    UserDefaults defaults(file);
    EXPECT_FALSE(defaults.objectForKey("a"));
    EXPECT_EQ(log.lines(), Lines{"[Error] Unable to load the user defaults from " + file.string() +
                                 " because it is not a JSON object. Starting with empty "
                                 "user defaults."});
    EXPECT_EQ(contentOf(file), bad);  // reading alone never overwrites it
    defaults.setBool("b", false);
    EXPECT_EQ(contentOf(file), R"({"b":false})");
  }
}

TEST(UserDefaults, unsavableChangesAndNonFiniteNumbersAreLoggedNotFatal) {
  TempDir dir;
  writeText(dir / "blocker", "a file where the directory should be");
  const auto file = dir / "blocker" / "UserDefaults.json";
  CapturingLog log;
  UserDefaults defaults(file);
  defaults.setString("k", "v");
  EXPECT_EQ(defaults.stringForKey("k"), "v");  // kept in memory
  defaults.setDouble("n", std::nan(""));
  EXPECT_FALSE(defaults.objectForKey("n"));
  EXPECT_EQ(log.lines(),
            (Lines{"[Error] Unable to save the user defaults to " + file.string() +
                       ": not a directory: " + (dir / "blocker").string() +
                       ". The change is kept in memory only.",
                   "[Error] Refusing to store a number that is not finite in the user defaults for "
                   "key n"}));
}

TEST(UserDefaults, observersRunAfterTheWriteOnTheWritersThreadAndMayReadTheStore) {
  TempDir dir;
  const auto file = dir / "UserDefaults.json";
  UserDefaults defaults(file);
  Lines seen;
  const auto writer = std::this_thread::get_id();
  const auto token = defaults.addObserver({"a", "b"}, [&](const std::string& key) {
    EXPECT_EQ(std::this_thread::get_id(), writer);
    // Both the value and the file already hold the change.
    seen.push_back(key + "=" + defaults.stringForKey(key).value_or("-") + " " + contentOf(file));
  });
  defaults.setString("a", "1");
  defaults.setString("other", "x");  // not observed
  defaults.setString("a", "1");      // unchanged values notify too
  defaults.removeObjectForKey("b");  // absent: nothing changes, nobody is told
  defaults.removeObjectForKey("a");
  defaults.removeObserver(token);
  defaults.setString("b", "2");
  EXPECT_EQ(seen,
            (Lines{R"(a=1 {"a":"1"})", R"(a=1 {"a":"1","other":"x"})", R"(a=- {"other":"x"})"}));

  // An observer that throws is logged; one that writes to the store may.
  CapturingLog log;
  defaults.addObserver({"k"}, [](const std::string&) { throw std::runtime_error("boom"); });
  defaults.addObserver({"k"}, [&](const std::string&) { defaults.setString("echo", "back"); });
  defaults.setString("k", "v");
  EXPECT_EQ(defaults.stringForKey("echo"), "back");
  EXPECT_EQ(log.lines(), Lines{"[Error] A user defaults observer of k failed: boom"});
}

}  // namespace
}  // namespace vntr
