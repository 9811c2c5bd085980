#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vntr/vntr.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <vntr/UserDefaults.hpp>

#include "core/ProcessSettings.hpp"
#include "platform/linux/Paths.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::TempDir;

EnvironmentLookup fakeEnvironment(std::map<std::string, std::string> values) {
  return [values = std::move(values)](const std::string& name) -> std::optional<std::string> {
    const auto found = values.find(name);
    if (found == values.end()) return std::nullopt;
    return found->second;
  };
}

void writeInfoPlist(const std::filesystem::path& directory, plist_t identifier) {
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "CFBundleIdentifier", identifier);
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  std::ofstream(directory / "Info.plist", std::ios::binary).write(bytes, length);
  std::free(bytes);
  plist_free(root);
}

TEST(Paths, xdgDirectoriesWithTheirFallbacks) {
  const auto withXdg = fakeEnvironment(
      {{"HOME", "/home/u"}, {"XDG_DATA_HOME", "/data"}, {"XDG_CONFIG_HOME", "/conf"}});
  EXPECT_EQ(defaultDocumentsDirectory("app", withXdg), "/data/app");
  EXPECT_EQ(defaultUserDefaultsFile("app", withXdg), "/conf/app/UserDefaults.json");

  // Relative XDG values are invalid and ignored.
  const auto homeOnly =
      fakeEnvironment({{"HOME", "/home/u"}, {"XDG_DATA_HOME", "data"}, {"XDG_CONFIG_HOME", ""}});
  EXPECT_EQ(defaultDocumentsDirectory("app", homeOnly), "/home/u/.local/share/app");
  EXPECT_EQ(defaultUserDefaultsFile("app", homeOnly), "/home/u/.config/app/UserDefaults.json");

  // Without HOME the password database knows the user's home; without that, /tmp is used.
  const auto nothing = fakeEnvironment({});
  const auto home = homeDirectory(nothing);
  const std::filesystem::path expected =
      home ? *home / ".local/share/app"
           : std::filesystem::path("/tmp/app-" + std::to_string(::getuid()));
  EXPECT_EQ(defaultDocumentsDirectory("app", nothing), expected);
}

TEST(Paths, appNameIsTheBundleIdentifierWhenItIsASafeDirectoryName) {
  TempDir dir;
  EXPECT_FALSE(bundleIdentifierIn(dir.path()));
  writeInfoPlist(dir.path(), plist_new_string("com.example.host"));
  EXPECT_EQ(bundleIdentifierIn(dir.path()), "com.example.host");
  EXPECT_EQ(appNameFor(bundleIdentifierIn(dir.path()), "prog"), "com.example.host");
  writeInfoPlist(dir.path(), plist_new_uint(5));
  EXPECT_FALSE(bundleIdentifierIn(dir.path()));

  EXPECT_EQ(appNameFor(std::nullopt, "prog"), "prog");
  for (const char* unsafe : {"", ".", "..", "../../etc", "a/b"}) {
    EXPECT_EQ(appNameFor(std::string(unsafe), "prog"), "prog") << unsafe;
  }
  EXPECT_EQ(appNameFor(std::nullopt, ""), "VNTRTagManager");
  EXPECT_FALSE(runningExecutable().name.empty());
}

// The paths are process-wide and freeze at first use, so one test walks the whole life cycle.
TEST(ProcessSettings, hostSettingsApplyUntilFirstUseThenFreeze) {
  TempDir dir;
  const auto documents = dir / "docs" / "nested";
  const auto defaultsFile = dir / "conf" / "UserDefaults.json";

  EXPECT_EQ(vntr_set_main_bundle_path(nullptr), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(vntr_set_documents_directory(""), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(vntr_set_user_defaults_path("\xff\xfe"), VNTR_INVALID_ARGUMENT);
  EXPECT_FALSE(setDocumentsDirectory(""));
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
  EXPECT_EQ(vntr_set_user_defaults_path("/elsewhere/x.json"), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(&processPaths(), &paths);
  EXPECT_EQ(processPaths().mainBundleDirectory, dir.path());

  // The C functions write the standard user defaults, which live in the file set above.
  auto& standard = UserDefaults::standardUserDefaults();
  int notified = 0;
  standard.addObserver({"IABConsent_SubjectToGDPR"}, [&](const std::string&) { ++notified; });
  EXPECT_EQ(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0"), VNTR_OK);
  EXPECT_EQ(vntr_user_defaults_set_double("n", 2.5), VNTR_OK);
  EXPECT_EQ(vntr_user_defaults_set_bool("b", 7), VNTR_OK);
  EXPECT_EQ(vntr_user_defaults_set_string(nullptr, "x"), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(vntr_user_defaults_set_string("k", "\xc3"), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(vntr_user_defaults_set_double("n", NAN), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(vntr_user_defaults_set_bool(nullptr, 1), VNTR_INVALID_ARGUMENT);
  EXPECT_EQ(notified, 1);
  {
    UserDefaults fromDisk(defaultsFile);
    EXPECT_EQ(fromDisk.subjectToGdpr(), "0");
    EXPECT_EQ(fromDisk.doubleForKey("n"), 2.5);
    EXPECT_EQ(fromDisk.objectForKey("b"), UserDefaults::Value(true));
  }
  EXPECT_EQ(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", nullptr), VNTR_OK);
  EXPECT_FALSE(standard.subjectToGdpr());
  EXPECT_EQ(notified, 2);
  EXPECT_FALSE(UserDefaults(defaultsFile).subjectToGdpr());
}

}  // namespace
}  // namespace vntr
