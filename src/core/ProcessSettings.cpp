#include "core/ProcessSettings.hpp"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "core/VNTRDebug.hpp"
#include "platform/linux/Files.hpp"
#include "platform/linux/Paths.hpp"

namespace vntr {

namespace {

/// The host's overrides until the first `processPaths()`; the frozen paths afterwards.
/// `overrides` is guarded by `mutex`; `frozen` is written once, under `mutex`, and then only read.
struct Settings {
  std::mutex mutex;
  ProcessPaths overrides;
  std::atomic<const ProcessPaths*> frozen{nullptr};
};

Settings& settings() {
  static Settings* const instance = new Settings();  // never destroyed: read at any time
  return *instance;
}

bool setOverride(std::string ProcessPaths::*member, std::string value) {
  if (value.empty()) return false;
  auto& s = settings();
  std::scoped_lock lock(s.mutex);
  if (s.frozen.load(std::memory_order_acquire) != nullptr) return false;
  s.overrides.*member = std::move(value);
  return true;
}

// Defaults that fell back to the shared /tmp are used only when the directory there is ours;
// otherwise the queue stays in memory and the user defaults are neither read nor written, so no
// one else can plant a file that grants consent. Returns the line to log, if any.
std::optional<std::string> distrustForeignFallback(ProcessPaths& paths, const std::string& app) {
  const auto fallback = fallbackDirectory(app);
  if (paths.documentsDirectory != fallback && parentPath(paths.userDefaultsFile) != fallback) {
    return std::nullopt;
  }
  const auto reason = claimPrivateDirectory(fallback);
  if (!reason) return std::nullopt;
  if (paths.documentsDirectory == fallback) paths.documentsDirectory.clear();
  if (parentPath(paths.userDefaultsFile) == fallback) paths.userDefaultsFile.clear();
  return "Not using " + fallback + " because " + *reason +
         ". Events are kept in memory and user defaults are not saved.";
}

ProcessPaths resolve(ProcessPaths paths, std::optional<std::string>& warning) {
  const auto environment = processEnvironment();
  const auto executable = runningExecutable();
  if (paths.mainBundleDirectory.empty()) paths.mainBundleDirectory = executable.directory;
  if (paths.documentsDirectory.empty() || paths.userDefaultsFile.empty()) {
    const auto app = appNameFor(bundleIdentifierIn(paths.mainBundleDirectory), executable.name);
    if (paths.documentsDirectory.empty()) {
      paths.documentsDirectory = defaultDocumentsDirectory(app, environment);
    }
    if (paths.userDefaultsFile.empty()) {
      paths.userDefaultsFile = defaultUserDefaultsFile(app, environment);
    }
    warning = distrustForeignFallback(paths, app);
  }
  return paths;
}

}  // namespace

bool setMainBundlePath(std::string directory) {
  return setOverride(&ProcessPaths::mainBundleDirectory, std::move(directory));
}

bool setDocumentsDirectory(std::string directory) {
  return setOverride(&ProcessPaths::documentsDirectory, std::move(directory));
}

bool setUserDefaultsPath(std::string file) {
  return setOverride(&ProcessPaths::userDefaultsFile, std::move(file));
}

const ProcessPaths& processPaths() {
  auto& s = settings();
  if (const auto* paths = s.frozen.load(std::memory_order_acquire)) return *paths;

  std::optional<std::string> directoryError;
  std::optional<std::string> fallbackWarning;
  const ProcessPaths* result = nullptr;
  {
    std::scoped_lock lock(s.mutex);
    result = s.frozen.load(std::memory_order_acquire);
    if (result == nullptr) {
      // Resolved once for the whole process and never destroyed: callers keep references.
      result = new ProcessPaths(resolve(s.overrides, fallbackWarning));
      if (!result->documentsDirectory.empty()) {
        directoryError = createPrivateDirectories(result->documentsDirectory);
      }
      s.frozen.store(result, std::memory_order_release);
    }
  }
  if (fallbackWarning) Debug(VantrelLogLevel::error, *fallbackWarning);
  if (directoryError) {
    Debug(VantrelLogLevel::error, "Unable to create the documents directory: " + *directoryError);
  }
  return *result;
}

}  // namespace vntr
