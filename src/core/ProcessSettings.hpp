#pragma once

#include <string>

namespace vntr {

/// Where the library finds the host's files and keeps its own.
struct ProcessPaths {
  /// Holds "VantrelTagManagerSDKInfo.plist" and "Info.plist"; default: the executable's directory.
  std::string mainBundleDirectory;
  /// Holds the request queue; default $XDG_DATA_HOME/<app>/. Created (mode 0700) if missing.
  /// Empty when the only place left was a /tmp directory someone else controls: the queue is
  /// then kept in memory.
  std::string documentsDirectory;
  /// The standard user defaults; default $XDG_CONFIG_HOME/<app>/UserDefaults.json. Empty in the
  /// same case: the values are then kept in memory only.
  std::string userDefaultsFile;
};

/// Host settings, effective only before the first call of `processPaths()` (the library's first
/// use). Each returns false and changes nothing once the paths are frozen or for an empty path.
/// Safe on any thread.
bool setMainBundlePath(std::string directory);
bool setDocumentsDirectory(std::string directory);
bool setUserDefaultsPath(std::string file);

/// The process's paths: what the host set, the defaults for the rest. The first call resolves
/// and freezes them (later setters fail) and creates the documents directory, logging an error
/// line if it cannot; the returned object is never destroyed or changed. Safe on any thread.
const ProcessPaths& processPaths();

}  // namespace vntr
