#include <cxxabi.h>

#include <cmath>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <utility>
#include <vntr/UserDefaults.hpp>

#include "core/ProcessSettings.hpp"
#include "core/VNTRDebug.hpp"
#include "platform/linux/Files.hpp"

namespace vntr {

namespace {

// The store holds a handful of consent strings; a file far beyond that is not ours to load.
constexpr size_t kMaxFileBytes = size_t{8} * 1024 * 1024;

constexpr const char* kSubjectToGdprKey = "IABConsent_SubjectToGDPR";
constexpr const char* kParsedVendorConsentsKey = "IABConsent_ParsedVendorConsents";
constexpr const char* kParsedPurposeConsentsKey = "IABConsent_ParsedPurposeConsents";

using Values = std::map<std::string, UserDefaults::Value>;

std::optional<UserDefaults::Value> valueFromJSON(const nlohmann::json& json) {
  if (json.is_string()) return json.get<std::string>();
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number()) return json.get<double>();
  return std::nullopt;
}

/// Nothing when the file is absent; an error text when it exists but cannot be used.
std::pair<Values, std::optional<std::string>> load(const std::string& file) {
  if (isMissing(file)) return {};
  const auto bytes = readFileBounded(file, kMaxFileBytes);
  if (!bytes) return {{}, "it cannot be read"};
  const auto json = nlohmann::json::parse(*bytes, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return {{}, "it is not a JSON object"};
  Values values;
  for (const auto& [key, member] : json.items()) {
    if (auto value = valueFromJSON(member)) values.emplace(key, std::move(*value));
  }
  return {std::move(values), std::nullopt};
}

std::string serialise(const Values& values) {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& entry : values) {
    std::visit([&json, &entry](const auto& v) { json[entry.first] = v; }, entry.second);
  }
  // Keys and strings from C++ callers may be invalid UTF-8; replace rather than fail the save.
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

/// Everything is guarded by `mutex`, including saving, so the file always follows the order of
/// the changes. Observers are copied out and called after the lock is released.
struct UserDefaults::Impl {
  struct Registration {
    std::vector<std::string> keys;
    std::shared_ptr<const Observer> observer;
  };

  explicit Impl(std::string path) : file(std::move(path)) {}

  const std::string file;
  mutable std::mutex mutex;
  Values values;
  std::map<uint64_t, Registration> observers;  // ordered by token: registration order
  uint64_t nextToken = 1;
};

UserDefaults& UserDefaults::standardUserDefaults() {
  static UserDefaults* const instance = new UserDefaults(processPaths().userDefaultsFile, nullptr);
  return *instance;  // never destroyed: observers and library threads use it until exit
}

UserDefaults::UserDefaults(std::filesystem::path file) : UserDefaults(file.string(), nullptr) {}

UserDefaults::UserDefaults(std::string file, std::nullptr_t)
    : impl_(std::make_unique<Impl>(std::move(file))) {
  auto [values, error] = load(impl_->file);
  impl_->values = std::move(values);
  if (error) {
    Debug(VantrelLogLevel::error, "Unable to load the user defaults from " + impl_->file +
                                      " because " + *error +
                                      ". Starting with empty user defaults.");
  }
}

UserDefaults::~UserDefaults() = default;

std::optional<UserDefaults::Value> UserDefaults::objectForKey(const std::string& key) const {
  std::scoped_lock lock(impl_->mutex);
  const auto found = impl_->values.find(key);
  if (found == impl_->values.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
  auto value = objectForKey(key);
  if (!value) return std::nullopt;
  if (auto* text = std::get_if<std::string>(&*value)) return std::move(*text);
  return std::nullopt;
}

double UserDefaults::doubleForKey(const std::string& key) const {
  const auto value = objectForKey(key);
  if (!value) return 0;
  if (const auto* number = std::get_if<double>(&*value)) return *number;
  if (const auto* flag = std::get_if<bool>(&*value)) return *flag ? 1 : 0;
  return 0;
}

void UserDefaults::setString(const std::string& key, std::string value) {
  write(key, Value(std::move(value)));
}

void UserDefaults::setDouble(const std::string& key, double value) {
  if (!std::isfinite(value)) {
    Debug(VantrelLogLevel::error,
          "Refusing to store a number that is not finite in the user defaults for key " + key);
    return;
  }
  write(key, Value(value));
}

void UserDefaults::setBool(const std::string& key, bool value) { write(key, Value(value)); }

void UserDefaults::removeObjectForKey(const std::string& key) { write(key, std::nullopt); }

void UserDefaults::write(const std::string& key, std::optional<Value> value) {
  std::vector<std::shared_ptr<const Observer>> toNotify;
  std::optional<std::string> saveError;
  {
    std::scoped_lock lock(impl_->mutex);
    auto& values = impl_->values;
    const auto found = values.find(key);
    bool changed = true;
    if (!value) {
      if (found == values.end()) return;  // nothing was there: no change, no notification
      values.erase(found);
    } else if (found == values.end()) {
      values.emplace(key, std::move(*value));
    } else {
      changed = found->second != *value;
      found->second = std::move(*value);
    }
    if (changed && !impl_->file.empty())
      saveError = writeFileAtomically(impl_->file, serialise(values));
    for (const auto& [token, registration] : impl_->observers) {
      for (const auto& observed : registration.keys) {
        if (observed == key) {
          toNotify.push_back(registration.observer);
          break;
        }
      }
    }
  }
  if (saveError) {
    Debug(VantrelLogLevel::error, "Unable to save the user defaults to " + impl_->file + ": " +
                                      *saveError + ". The change is kept in memory only.");
  }
  for (const auto& observer : toNotify) {
    try {
      (*observer)(key);
    } catch (const std::exception& e) {
      Debug(VantrelLogLevel::error, "A user defaults observer of " + key + " failed: " + e.what());
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      Debug(VantrelLogLevel::error, "A user defaults observer of " + key + " failed.");
    }
  }
}

uint64_t UserDefaults::addObserver(std::vector<std::string> keys, Observer observer) {
  std::scoped_lock lock(impl_->mutex);
  const uint64_t token = impl_->nextToken++;
  if (!observer) return token;  // nothing to call; the token is still valid to remove
  impl_->observers.emplace(
      token,
      Impl::Registration{std::move(keys), std::make_shared<const Observer>(std::move(observer))});
  return token;
}

void UserDefaults::removeObserver(uint64_t token) {
  std::shared_ptr<const Observer> released;  // destroyed after the lock is released
  {
    std::scoped_lock lock(impl_->mutex);
    const auto found = impl_->observers.find(token);
    if (found == impl_->observers.end()) return;
    released = std::move(found->second.observer);
    impl_->observers.erase(found);
  }
}

std::optional<std::string> UserDefaults::subjectToGdpr() const {
  return stringForKey(kSubjectToGdprKey);
}

std::optional<std::string> UserDefaults::parsedVendorConsents() const {
  return stringForKey(kParsedVendorConsentsKey);
}

std::optional<std::string> UserDefaults::parsedPurposeConsents() const {
  return stringForKey(kParsedPurposeConsentsKey);
}

}  // namespace vntr
