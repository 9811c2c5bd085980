// The user-defaults file: the bytes of one input as the file a store is loaded from, then reads,
// a write (which saves every loaded value along with the new one) and a second load of the saved
// file, which must hold what the first store held.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>
#include <vntr/UserDefaults.hpp>

#include "FuzzSupport.hpp"

namespace {

constexpr const char* kSubjectKey = "IABConsent_SubjectToGDPR";
constexpr size_t kKeysCompared = 64;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "user defaults: %s\n", what.c_str());
  std::abort();
}

// The keys of the file's top-level object, as an independent reader sees them.
std::vector<std::string> keysOf(std::string_view text) {
  std::vector<std::string> keys;
  const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return keys;
  for (auto it = json.begin(); it != json.end() && keys.size() < kKeysCompared; ++it) {
    if (it.key() != kSubjectKey) keys.push_back(it.key());
  }
  return keys;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto file = vntr::fuzz::scratchDirectory() / "UserDefaults.json";
  vntr::fuzz::writeInput(file, data, size);
  const auto keys = keysOf(vntr::fuzz::asText(data, size));
  {
    vntr::UserDefaults defaults(file);
    (void)defaults.subjectToGdpr();
    (void)defaults.parsedVendorConsents();
    (void)defaults.parsedPurposeConsents();
    std::vector<std::optional<vntr::UserDefaults::Value>> loaded;
    for (const auto& key : keys) {
      loaded.push_back(defaults.objectForKey(key));
      (void)defaults.doubleForKey(key);
    }

    defaults.setString(kSubjectKey, "1");

    vntr::UserDefaults reloaded(file);
    if (reloaded.subjectToGdpr() != std::optional<std::string>("1")) fail("the write was lost");
    for (size_t i = 0; i < keys.size(); ++i) {
      if (reloaded.objectForKey(keys[i]) != loaded[i]) fail("a value changed on saving");
    }
  }
  vntr::fuzz::drainMainQueue();
  return 0;
}
