#include "core/VNTRInfo.hpp"

#include <cxxabi.h>

#include <algorithm>
#include <utility>

#include "core/VNTRDebug.hpp"

namespace vntr {

template <class T, class Compute>
const T& VNTRInfo::get(Lazy<T>& slot, Compute compute) {
  std::call_once(slot.once, [&] {
    try {
      slot.value = compute();
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // A host-supplied source that throws leaves the value at its fallback (the slot's
      // default, or what the caller pre-set), rather than failing every later read.
    }
  });
  return slot.value;
}

VNTRInfo::VNTRInfo(std::shared_ptr<DeviceFactsSource> source, std::function<TimePoint()> now)
    : source_(std::move(source)), now_(std::move(now)) {}

const std::string& VNTRInfo::idfa() {
  return get(idfa_, [this] {
    idfa_.value = kZeroUUID;  // the fallback if the source throws
    return source_->idfa();
  });
}

const std::string& VNTRInfo::idfv() {
  return get(idfv_, [this] { return source_->idfv(); });
}

const std::string& VNTRInfo::iOSVersion() {
  return get(systemVersion_, [this] { return source_->systemVersion(); });
}

const std::string& VNTRInfo::model() {
  return get(model_, [this] { return source_->model(); });
}

const std::string& VNTRInfo::vntrOSAndVersion() {
  return get(osAndVersion_, [this] {
    std::string joined = model() + "-" + iOSVersion();
    joined.erase(std::remove(joined.begin(), joined.end(), ' '), joined.end());
    return joined;
  });
}

bool VNTRInfo::trackingEnabled() {
  return get(trackingEnabled_, [this] { return source_->trackingEnabled(); });
}

bool VNTRInfo::trackingDisabled() { return !trackingEnabled(); }

const std::string& VNTRInfo::sdkVersion() {
  return get(sdkVersion_, [this] { return source_->sdkVersion(); });
}

const std::string& VNTRInfo::language() {
  return get(language_, [this] {
    language_.value = "en";
    std::string tag = source_->language();
    return tag.empty() ? std::string("en") : tag;
  });
}

const std::string& VNTRInfo::hardware() {
  return get(hardware_, [this] { return source_->hardware(); });
}

const std::optional<std::string>& VNTRInfo::bundleIdentifier() {
  return get(bundleIdentifier_, [this] { return source_->bundleIdentifier(); });
}

TimePoint VNTRInfo::firstInstall() {
  return get(firstInstall_, [this] {
    std::optional<TimePoint> installed;
    try {
      installed = source_->firstInstall();
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      // Treated like a file whose attributes cannot be read.
    }
    if (installed) return *installed;
    Debug(VantrelLogLevel::warning, "No first install date found. Using now...");
    return now_();
  });
}

}  // namespace vntr
