#pragma once

#include <functional>
#include <optional>
#include <string>

namespace vntr {

/// Looks up an environment variable; nothing when unset. Injectable so tests never touch the
/// real environment.
using EnvironmentLookup = std::function<std::optional<std::string>(const std::string& name)>;

/// The process environment (getenv). Set variables with an empty value read as unset.
EnvironmentLookup processEnvironment();

/// Where the running program lives, from /proc/self/exe. When the link cannot be read the
/// directory is the current directory and the name the one the program was started with.
struct ExecutableLocation {
  std::string directory;
  std::string name;
};
ExecutableLocation runningExecutable();

/// "CFBundleIdentifier" of the "Info.plist" in `mainBundleDirectory`; nothing when there is no
/// such file, it is not a property-list dictionary, or the value is not a string.
std::optional<std::string> bundleIdentifierIn(const std::string& mainBundleDirectory);

/// The application's name for its per-user directories: the bundle identifier when it is usable
/// as a single path component, else `executableName`.
std::string appNameFor(const std::optional<std::string>& bundleIdentifier,
                       const std::string& executableName);

/// The user's home: $HOME, else the password database's entry. Nothing when neither is known.
std::optional<std::string> homeDirectory(const EnvironmentLookup& environment);

/// /tmp/<app>-<uid>: where the library keeps its files when the user has no home.
std::string fallbackDirectory(const std::string& appName);

/// Makes `directory` (in a place others can write, like /tmp) the user's own: creates it with
/// mode 0700 when missing, else accepts it only when it is a real directory (not a symbolic
/// link) owned by the user that neither group nor others can write. Nothing when it may be
/// used, else the reason. Another local user could otherwise plant files there first.
std::optional<std::string> claimPrivateDirectory(const std::string& directory);

/// $XDG_DATA_HOME/<app>/, defaulting to ~/.local/share/<app>/; without any home
/// /tmp/<app>-<uid>/. Relative XDG values are ignored, as the XDG rules require.
std::string defaultDocumentsDirectory(const std::string& appName,
                                      const EnvironmentLookup& environment);

/// $XDG_CONFIG_HOME/<app>/UserDefaults.json, defaulting to ~/.config/<app>/...; without any home
/// /tmp/<app>-<uid>/UserDefaults.json.
std::string defaultUserDefaultsFile(const std::string& appName,
                                    const EnvironmentLookup& environment);

}  // namespace vntr
