#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>
#include <vntr/Export.hpp>

namespace vntr {

/// A persistent key-value store of strings, numbers and booleans. The standard instance is where
/// the app's consent-management component writes the IAB consent keys, which the library reads
/// and observes.
///
/// Every member may be called from any thread. Values live in one JSON file that each change
/// replaces atomically (a crash leaves the old or the new file, never a mix); the file has mode
/// 0600 and a directory created for it 0700. A change that cannot be saved (read-only
/// directory, full disk) logs an error line and is kept in memory for this process.
class VNTR_API UserDefaults {
 public:
  using Value = std::variant<std::string, double, bool>;
  /// Called with the changed key.
  using Observer = std::function<void(const std::string& key)>;

  /// The store the library reads consent from; its file is `processPaths().userDefaultsFile`.
  /// Created on first use and never destroyed.
  static UserDefaults& standardUserDefaults();

  /// Loads `file`. A missing file means an empty store; one that cannot be read or is not a JSON
  /// object logs an error line and the store starts empty (the file is left alone until the next
  /// change is saved). Members of other JSON types (null, arrays, objects) are skipped.
  explicit UserDefaults(std::filesystem::path file);
  ~UserDefaults();
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  std::optional<Value> objectForKey(const std::string& key) const;
  /// The value when it is a string; nothing otherwise.
  std::optional<std::string> stringForKey(const std::string& key) const;
  /// The value when it is a number (a bool reads 1 or 0); 0 otherwise.
  double doubleForKey(const std::string& key) const;

  /// Each setter stores, saves, then calls the key's observers synchronously on the calling
  /// thread, after every lock is released (an observer may read or write the store). Observers
  /// are called on every set, also when the value is unchanged.
  void setString(const std::string& key, std::string value);
  /// A value that is not finite is refused with an error line (JSON cannot hold it).
  void setDouble(const std::string& key, double value);
  void setBool(const std::string& key, bool value);
  /// Observers are called only when the key was present.
  void removeObjectForKey(const std::string& key);

  /// Calls `observer` after every change of one of `keys`, in registration order among the
  /// observers of that key. An observer that throws is logged; the writer never sees it.
  /// Returns the token for `removeObserver`.
  uint64_t addObserver(std::vector<std::string> keys, Observer observer);
  /// After this returns the observer is not called for changes that start later; a call already
  /// under way on another thread may still finish.
  void removeObserver(uint64_t token);

  /// "IABConsent_SubjectToGDPR" as a string.
  std::optional<std::string> subjectToGdpr() const;
  /// "IABConsent_ParsedVendorConsents" as a string.
  std::optional<std::string> parsedVendorConsents() const;
  /// "IABConsent_ParsedPurposeConsents" as a string.
  std::optional<std::string> parsedPurposeConsents() const;

 private:
  struct Impl;
  // The standard store's: its path is already text, and making a std::filesystem::path of it
  // would map that part of libstdc++ into hosts that never use it.
  UserDefaults(std::string file, std::nullptr_t);
  void write(const std::string& key, std::optional<Value> value);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vntr
