#include "platform/linux/LinuxDeviceFacts.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "core/SipHash.hpp"
#include "platform/linux/Files.hpp"

#ifndef VNTR_VERSION_STRING
#error "VNTR_VERSION_STRING is defined by the build for every library source"
#endif

namespace vntr {

namespace {

constexpr size_t kMaxSystemFileBytes = size_t{64} * 1024;
// Separates this use of the machine secret from any other derivation from it.
constexpr std::string_view kIdfvDomain = "VNTRTagManager.idfv:";

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

std::string trimmed(std::string_view text) {
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return std::string(text);
}

struct utsname kernelNames() {
  struct utsname names {};
  if (::uname(&names) != 0) names = {};
  return names;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<std::array<uint8_t, 16>> machineIdBytes(std::string_view machineId) {
  if (machineId.size() != 32) return std::nullopt;
  std::array<uint8_t, 16> bytes{};
  bool allZero = true;
  for (size_t i = 0; i < 16; ++i) {
    const int high = hexValue(machineId[2 * i]);
    const int low = hexValue(machineId[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
    allZero = allZero && bytes[i] == 0;
  }
  if (allZero) return std::nullopt;
  return bytes;
}

std::string upperCaseUUID(const std::array<uint8_t, 16>& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0f];
  }
  return text;
}

/// The value of `key` in an os-release file: KEY=value lines, values optionally quoted.
std::optional<std::string> osReleaseValue(std::string_view content, std::string_view key) {
  while (!content.empty()) {
    const size_t end = std::min(content.find('\n'), content.size());
    std::string_view line = content.substr(0, end);
    content.remove_prefix(std::min(end + 1, content.size()));
    if (line.size() <= key.size() || !line.starts_with(key) || line[key.size()] != '=') continue;
    std::string value = trimmed(line.substr(key.size() + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    std::string unescaped;
    for (size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size()) ++i;
      unescaped += value[i];
    }
    return unescaped;
  }
  return std::nullopt;
}

class LinuxDeviceFacts final : public DeviceFactsSource {
 public:
  LinuxDeviceFacts(std::string mainBundleDirectory, LinuxFactSources sources)
      : mainBundleDirectory_(std::move(mainBundleDirectory)), sources_(std::move(sources)) {}

  std::string idfa() override { return VNTRInfo::kZeroUUID; }
  bool trackingEnabled() override { return false; }

  std::string idfv() override {
    const auto content = readFileBounded(sources_.machineIdFile, kMaxSystemFileBytes);
    if (!content) return "";
    std::string identity;
    if (sources_.appIdentity) {
      identity = *sources_.appIdentity;
    } else {
      identity = appNameFor(bundleIdentifier(), runningExecutable().name);
    }
    return appSpecificIdentifier(trimmed(*content), identity);
  }

  std::string model() override {
    if (const auto name = readFileBounded(sources_.productNameFile, kMaxSystemFileBytes)) {
      std::string product = trimmed(*name);
      if (!product.empty()) return product;
    }
    return kernelNames().sysname;
  }

  std::string systemVersion() override {
    for (const auto& file : sources_.osReleaseFiles) {
      const auto content = readFileBounded(file, kMaxSystemFileBytes);
      if (!content) continue;  // the next file is the standard's fallback location
      if (auto version = osReleaseValue(*content, "VERSION_ID"); version && !version->empty()) {
        return *version;
      }
      break;
    }
    return kernelNames().release;
  }

  std::string sdkVersion() override { return VNTR_VERSION_STRING; }
  std::string language() override { return preferredLanguage(sources_.environment); }
  std::string hardware() override { return kernelNames().machine; }

  std::optional<std::string> bundleIdentifier() override {
    return bundleIdentifierIn(mainBundleDirectory_);
  }

  std::optional<TimePoint> firstInstall() override {
    struct statx info {};
    if (::statx(AT_FDCWD, mainBundleDirectory_.c_str(), 0, STATX_BTIME, &info) != 0 ||
        (info.stx_mask & STATX_BTIME) == 0) {
      return std::nullopt;
    }
    const auto sinceEpoch = std::chrono::seconds(info.stx_btime.tv_sec) +
                            std::chrono::nanoseconds(info.stx_btime.tv_nsec);
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(sinceEpoch));
  }

 private:
  const std::string mainBundleDirectory_;
  const LinuxFactSources sources_;
};

}  // namespace

std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFacts(std::string mainBundleDirectory,
                                                        LinuxFactSources sources) {
  return std::make_shared<LinuxDeviceFacts>(std::move(mainBundleDirectory), std::move(sources));
}

std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFacts(std::string mainBundleDirectory) {
  return makeLinuxDeviceFacts(std::move(mainBundleDirectory), LinuxFactSources{});
}

std::optional<std::string> languageTagFromLocale(std::string_view locale) {
  locale = locale.substr(0, std::min(locale.find_first_of(".@"), locale.size()));
  if (locale.empty() || locale == "C" || locale == "POSIX") return std::nullopt;
  const size_t separator = std::min(locale.find_first_of("_-"), locale.size());
  const std::string_view language = locale.substr(0, separator);
  if (language.size() < 2 || language.size() > 8 ||
      !std::all_of(language.begin(), language.end(), isAsciiAlpha)) {
    return std::nullopt;
  }
  std::string tag;
  for (char c : language) tag += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (separator == locale.size()) return tag;
  const std::string_view region = locale.substr(separator + 1);
  const bool letters =
      region.size() == 2 && std::all_of(region.begin(), region.end(), isAsciiAlpha);
  const bool digits = region.size() == 3 && std::all_of(region.begin(), region.end(), isAsciiDigit);
  if (!letters && !digits) return tag;  // an odd territory does not make the language unusable
  tag += '-';
  for (char c : region) tag += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return tag;
}

std::string preferredLanguage(const EnvironmentLookup& environment) {
  if (auto list = environment("LANGUAGE")) {
    const std::string_view first = std::string_view(*list).substr(0, list->find(':'));
    if (auto tag = languageTagFromLocale(first)) return *tag;
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (auto value = environment(name)) {
      if (auto tag = languageTagFromLocale(*value)) return *tag;
    }
  }
  return "en";
}

std::string appSpecificIdentifier(std::string_view machineId, std::string_view appIdentity) {
  const auto key = machineIdBytes(machineId);
  if (!key) return "";
  std::string message(kIdfvDomain);
  message += appIdentity;
  auto bytes = sipHash128(*key, message);
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4: opaque bits
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);  // RFC 4122 variant
  return upperCaseUUID(bytes);
}

}  // namespace vntr
