#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/Extensions.hpp"

namespace vntr {

/// Where the device and app facts come from. The library uses the Linux source; a host (or a
/// port, or a test) may hand its own to the `VNTRInfo` it builds before first use. Each member
/// is called at most once per `VNTRInfo`, from whichever thread reads the fact first, so an
/// implementation must be safe to call from any thread. An exception thrown by a member is
/// caught and the fact takes its fallback.
class DeviceFactsSource {
 public:
  virtual ~DeviceFactsSource() = default;
  /// The advertising identifier as an upper-case UUID string.
  virtual std::string idfa() = 0;
  /// The app's per-device identifier as a UUID string; "" when there is none.
  virtual std::string idfv() = 0;
  virtual std::string model() = 0;
  virtual std::string systemVersion() = 0;
  virtual bool trackingEnabled() = 0;
  virtual std::string sdkVersion() = 0;
  /// The user's first preferred language as a BCP-47 tag.
  virtual std::string language() = 0;
  virtual std::string hardware() = 0;
  virtual std::optional<std::string> bundleIdentifier() = 0;
  /// When the app was installed; nothing when unknown.
  virtual std::optional<TimePoint> firstInstall() = 0;
};

/// The facts of this Linux machine and of the app in `mainBundleDirectory`.
std::shared_ptr<DeviceFactsSource> makeLinuxDeviceFacts(std::string mainBundleDirectory);

/// The device and app facts sent with every request. Each value is computed at its first read,
/// once (thread-safe one-time initialisation per value), and never changes afterwards; every
/// member may be called from any thread.
class VNTRInfo {
 public:
  static constexpr const char* kZeroUUID = "00000000-0000-0000-0000-000000000000";

  explicit VNTRInfo(std::shared_ptr<DeviceFactsSource> source,
                    std::function<TimePoint()> now = &std::chrono::system_clock::now);
  VNTRInfo(const VNTRInfo&) = delete;
  VNTRInfo& operator=(const VNTRInfo&) = delete;

  const std::string& idfa();
  const std::string& idfv();
  const std::string& iOSVersion();
  const std::string& model();
  /// `model()` + "-" + `iOSVersion()` with every blank removed, for example "iPadPro-12.1".
  const std::string& vntrOSAndVersion();
  bool trackingEnabled();
  bool trackingDisabled();
  const std::string& sdkVersion();
  const std::string& language();
  const std::string& hardware();
  const std::optional<std::string>& bundleIdentifier();
  /// The source's install time; when it has none, logs the warning
  /// "No first install date found. Using now..." once and uses the time of that first read.
  TimePoint firstInstall();

 private:
  template <class T>
  struct Lazy {
    std::once_flag once;
    T value{};
  };

  template <class T, class Compute>
  const T& get(Lazy<T>& slot, Compute compute);

  std::shared_ptr<DeviceFactsSource> source_;  // immutable
  std::function<TimePoint()> now_;             // immutable
  Lazy<std::string> idfa_, idfv_, systemVersion_, model_, osAndVersion_, sdkVersion_, language_,
      hardware_;
  Lazy<bool> trackingEnabled_;
  Lazy<std::optional<std::string>> bundleIdentifier_;
  Lazy<TimePoint> firstInstall_;
};

}  // namespace vntr
