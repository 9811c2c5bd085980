#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/VNTRInfo.hpp"
#include "platform/linux/Paths.hpp"

namespace vntr {

/// Where the Linux facts are read from; the defaults are the system's files and environment.
/// Tests point them at files of their own.
struct LinuxFactSources {
  std::string machineIdFile = "/etc/machine-id";
  std::string productNameFile = "/sys/class/dmi/id/product_name";
  std::vector<std::string> osReleaseFiles = {"/etc/os-release", "/usr/lib/os-release"};
  EnvironmentLookup environment = processEnvironment();
  /// What `idfv` is derived for; default: the bundle identifier, else the executable's name.
  std::optional<std::string> appIdentity;
};

/// The Linux facts (see `makeLinuxDeviceFacts`), read from `sources`:
/// - idfa: the all-zero UUID, and tracking disabled: Linux has no advertising identifier.
/// - idfv: SipHash-2-4-128 keyed with the 16 bytes of the machine id over the app identity,
///   shaped as a version-4 UUID and written upper-case; "" without a valid machine id. The
///   machine id itself never leaves the process, and different apps get unrelated values.
/// - model: the DMI product name, else the kernel's name (uname sysname).
/// - systemVersion: VERSION_ID of os-release, else the kernel release (uname release).
/// - hardware: uname machine. language: see `languageTagFromLocale`.
/// - firstInstall: the birth time (statx) of the main bundle directory, when the file system
///   records one.
std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFacts(std::string mainBundleDirectory,
                                                        LinuxFactSources sources);

/// A locale name ("en_US.UTF-8", "de_DE@euro", "pt_BR") as a BCP-47 tag ("en-US", "de-DE",
/// "pt-BR"); nothing for "C", "POSIX", an empty name or one that is not a language.
std::optional<std::string> languageTagFromLocale(std::string_view locale);

/// The first usable locale of LANGUAGE (its first entry), LC_ALL, LC_MESSAGES and LANG, as a
/// BCP-47 tag; "en" when none is usable.
std::string preferredLanguage(const EnvironmentLookup& environment);

/// The identifier of `appIdentity` on the machine with `machineId` (32 hex digits, as in
/// /etc/machine-id); "" when `machineId` is not a valid machine id.
std::string appSpecificIdentifier(std::string_view machineId, std::string_view appIdentity);

}  // namespace vntr
