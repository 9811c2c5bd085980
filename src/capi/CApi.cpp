// The C functions: each checks its pointers, then runs its body through one guard.
#include <vntr/vntr.h>

#include <cmath>
#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "capi/CApiGuard.hpp"
#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"

namespace {

using vntr::capi::guarded;
using vntr::capi::validText;

using vntr::VNTRPreferences;

// JSON nested deeper than this is refused before parsing: serialising it later would recurse
// once per level on a library thread.
constexpr size_t kMaxEventDataDepth = 256;

class CDelegate final : public vntr::VNTRTagManagerDelegate {
 public:
  CDelegate(vntr_statistic_callback callback, void* context)
      : callback_(callback), context_(context) {}
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    callback_(statistic, adjustment, context_);
  }

 private:
  vntr_statistic_callback callback_;
  void* context_;
};

}  // namespace

extern "C" {

vntr_status_t vntr_fire_events(const char* const* events, size_t count, const char* event_group,
                               const char* event_data_json) {
  if (event_group == nullptr || (events == nullptr && count > 0)) return VNTR_INVALID_ARGUMENT;
  return guarded([&] {
    std::vector<std::string> names;
    names.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      if (events[i] == nullptr || !vntr::isValidUTF8(events[i])) return VNTR_INVALID_ARGUMENT;
      names.emplace_back(events[i]);
    }
    if (!vntr::isValidUTF8(event_group)) return VNTR_INVALID_ARGUMENT;
    nlohmann::json data = nlohmann::json::object();
    if (event_data_json != nullptr) {
      const std::string_view text(event_data_json);
      if (vntr::jsonNestingWithin(text, kMaxEventDataDepth)) {
        data = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
      } else {
        data = nlohmann::json(nlohmann::json::value_t::discarded);
      }
      if (data.is_discarded() || !data.is_object()) {
        vntr::Debug(vntr::VantrelLogLevel::error,
                    "Sync Event: Invalid event Data provided.  Ensure object is valid using "
                    "\"isValidJSONObject\".");
        return VNTR_INVALID_ARGUMENT;
      }
    }
    vntr::VNTRTagManager::fireEvents(names, event_group, data);
    return VNTR_OK;
  });
}

int vntr_subject_to_gdpr_consent(void) {
  try {
    return vntr::VNTRTagManager::sharedInstance().subjectToGdprConsent() ? 1 : 0;
  } catch (...) {
    return 1;
  }
}

int vntr_has_gdpr_consent(void) {
  try {
    return vntr::VNTRTagManager::sharedInstance().hasGdprConsent() ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

void vntr_set_log_level(int level) {
  if (const auto parsed = vntr::VantrelLogLevel::fromRawValue(level)) {
    VNTRPreferences::sharedPreferences().setLogLevel(*parsed);
  }
}

int vntr_log_level(void) { return VNTRPreferences::sharedPreferences().logLevel().rawValue(); }

void vntr_set_logging_callback(vntr_log_callback callback, void* context) {
  (void)guarded([&] {
    if (callback == nullptr) {
      VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);
      return VNTR_OK;
    }
    VNTRPreferences::sharedPreferences().setLoggingCallback(
        [callback, context](vntr::VantrelLogLevel level, const std::vector<std::string>& strings) {
          std::vector<const char*> pointers;
          pointers.reserve(strings.size());
          for (const auto& s : strings) pointers.push_back(s.c_str());
          callback(level.rawValue(), pointers.data(), pointers.size(), context);
        });
    return VNTR_OK;
  });
}

void vntr_set_delegate(vntr_statistic_callback callback, void* context) {
  (void)guarded([&] {
    VNTRPreferences::sharedPreferences().setTagManagerDelegate(
        callback == nullptr ? nullptr : std::make_shared<CDelegate>(callback, context));
    return VNTR_OK;
  });
}

vntr_status_t vntr_set_server_url(const char* url) {
  if (url == nullptr) return VNTR_INVALID_ARGUMENT;
  return guarded([&] {
    if (!vntr::isValidUTF8(url)) return VNTR_INVALID_ARGUMENT;
    VNTRPreferences::sharedPreferences().setServerURL(url);
    return VNTR_OK;
  });
}

void vntr_set_request_timeout(double seconds) {
  if (std::isfinite(seconds) && seconds > 0) {
    VNTRPreferences::sharedPreferences().setRequestTimeout(seconds);
  }
}

vntr_status_t vntr_use_host_reachability(uint32_t initial_flags) {
  return guarded([&] {
    return vntr::VNTRTagManager::useHostReachability(initial_flags) ? VNTR_OK
                                                                    : VNTR_INVALID_ARGUMENT;
  });
}

void vntr_update_reachability_flags(uint32_t flags) {
  vntr::VNTRTagManager::updateReachabilityFlags(flags);
}

// Network settings.

vntr_status_t vntr_set_consent_check_url(const char* url) {
  return guarded([&] {
    if (url != nullptr && !vntr::isValidUTF8(url)) return VNTR_INVALID_ARGUMENT;
    VNTRPreferences::sharedPreferences().setConsentCheckURL(url != nullptr ? url : "");
    return VNTR_OK;
  });
}

void vntr_set_retry_backoff(int enabled) {
  VNTRPreferences::sharedPreferences().setRetryBackoff(enabled != 0);
}

}  // extern "C"
