#include "platform/linux/Paths.hpp"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/linux/Files.hpp"
#include "platform/linux/PropertyList.hpp"

namespace vntr {

namespace {

constexpr const char* kDeletedSuffix = " (deleted)";

std::optional<std::string> absoluteVariable(const EnvironmentLookup& environment,
                                            const std::string& name) {
  auto value = environment(name);
  if (!value || value->empty() || value->front() != '/') return std::nullopt;
  return value;
}

std::string xdgDirectory(const std::string& variable, const char* homeRelative,
                         const std::string& appName, const EnvironmentLookup& environment) {
  if (auto base = absoluteVariable(environment, variable)) return joinPath(*base, appName);
  if (auto home = homeDirectory(environment)) {
    return joinPath(joinPath(*home, homeRelative), appName);
  }
  return fallbackDirectory(appName);
}

// The target of a symbolic link; nothing when it cannot be read.
std::optional<std::string> linkTarget(const char* link) {
  std::string target(256, '\0');
  for (int attempt = 0; attempt < 8; ++attempt) {
    const ssize_t n = ::readlink(link, target.data(), target.size());
    if (n < 0) return std::nullopt;
    if (static_cast<size_t>(n) < target.size()) {
      target.resize(static_cast<size_t>(n));
      return target;
    }
    target.resize(target.size() * 4);  // possibly cut off: try again with more room
  }
  return std::nullopt;
}

}  // namespace

std::string fallbackDirectory(const std::string& appName) {
  return "/tmp/" + appName + "-" + std::to_string(::getuid());
}

std::optional<std::string> claimPrivateDirectory(const std::string& directory) {
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return std::string("it cannot be created: ") + std::strerror(errno);
  }
  struct stat info {};
  if (::lstat(directory.c_str(), &info) != 0) {
    return std::string("it cannot be examined: ") + std::strerror(errno);
  }
  if (S_ISLNK(info.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(info.st_mode)) return "it is not a directory";
  if (info.st_uid != ::getuid()) return "it belongs to uid " + std::to_string(info.st_uid);
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others can write to it";
  return std::nullopt;
}

EnvironmentLookup processEnvironment() {
  return [](const std::string& name) -> std::optional<std::string> {
    // Read-only use; a host that calls setenv while other threads run is already undefined for
    // every library in the process.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* value = std::getenv(name.c_str());
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
  };
}

ExecutableLocation runningExecutable() {
  if (auto target = linkTarget("/proc/self/exe"); target && !target->empty()) {
    // A program whose file was replaced while running (an update) still reports its old path.
    const std::string_view suffix = kDeletedSuffix;
    if (target->size() > suffix.size() && target->ends_with(suffix)) {
      target->resize(target->size() - suffix.size());
    }
    return {parentPath(*target), std::string(lastPathComponent(*target))};
  }
  char current[4096];
  return {::getcwd(current, sizeof current) != nullptr ? current : ".",
          program_invocation_short_name};
}

std::optional<std::string> bundleIdentifierIn(const std::string& mainBundleDirectory) {
  const auto entries = readPropertyListDictionary(joinPath(mainBundleDirectory, "Info.plist"));
  if (!entries) return std::nullopt;
  const auto found = entries->find("CFBundleIdentifier");
  if (found == entries->end()) return std::nullopt;
  return found->second;
}

std::string appNameFor(const std::optional<std::string>& bundleIdentifier,
                       const std::string& executableName) {
  auto usable = [](const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
  };
  if (bundleIdentifier && usable(*bundleIdentifier)) return *bundleIdentifier;
  if (usable(executableName)) return executableName;
  return "VNTRTagManager";
}

std::optional<std::string> homeDirectory(const EnvironmentLookup& environment) {
  if (auto home = absoluteVariable(environment, "HOME")) return home;
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* result = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
      result != nullptr && result->pw_dir != nullptr && result->pw_dir[0] == '/') {
    return std::string(result->pw_dir);
  }
  return std::nullopt;
}

std::string defaultDocumentsDirectory(const std::string& appName,
                                      const EnvironmentLookup& environment) {
  return xdgDirectory("XDG_DATA_HOME", ".local/share", appName, environment);
}

std::string defaultUserDefaultsFile(const std::string& appName,
                                    const EnvironmentLookup& environment) {
  return joinPath(xdgDirectory("XDG_CONFIG_HOME", ".config", appName, environment),
                  "UserDefaults.json");
}

}  // namespace vntr
