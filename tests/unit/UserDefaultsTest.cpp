#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <vntr/UserDefaults.hpp>

#include "platform/linux/Files.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using test::CapturingLog;
using test::TempDir;
using Lines = std::vector<std::string>;

std::string contentOf(const std::filesystem::path& file) {
  return readFileBounded(file, 1 << 20).value_or("<unreadable>");
}

void writeText(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

TEST(UserDefaults, valuesSurviveAReloadWithTheirTypes) {
  TempDir dir;
  const auto file = dir / "config" / "app" / "UserDefaults.json";
  {
    UserDefaults defaults(file);
    defaults.setString("IABConsent_SubjectToGDPR", "1");
    defaults.setDouble("ratio", 0.25);
    defaults.setDouble("whole", 3);
    defaults.setBool("flag", true);
    defaults.setString("gone", "soon");
    defaults.removeObjectForKey("gone");
  }
  UserDefaults reloaded(file);
  EXPECT_EQ(reloaded.subjectToGdpr(), "1");
  using Value = UserDefaults::Value;
  for (const auto& [key, value] :
       {std::pair{"ratio", Value(0.25)}, {"whole", Value(3.0)}, {"flag", Value(true)}}) {
    EXPECT_EQ(reloaded.objectForKey(key), value) << key;
  }
  EXPECT_FALSE(reloaded.objectForKey("gone"));

  // Typed reads: strings only from strings, numbers from numbers and bools.
  EXPECT_FALSE(reloaded.stringForKey("ratio"));
  EXPECT_EQ(reloaded.doubleForKey("ratio"), 0.25);
  EXPECT_EQ(reloaded.doubleForKey("flag"), 1.0);
  EXPECT_EQ(reloaded.doubleForKey("IABConsent_SubjectToGDPR"), 0.0);
  EXPECT_EQ(reloaded.doubleForKey("missing"), 0.0);

  // Members of other types in a file written by someone else are skipped.
  writeText(file,
            R"({"s":"x","n":7,"big":18446744073709551615,"b":false,"z":null,"a":[1],"o":{}})");
  UserDefaults foreign(file);
  EXPECT_EQ(foreign.stringForKey("s"), "x");
  EXPECT_EQ(foreign.doubleForKey("big"), 18446744073709551615.0);
  EXPECT_EQ(foreign.objectForKey("b"), UserDefaults::Value(false));
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
