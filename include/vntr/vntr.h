/* C interface of VNTRTagManager, usable from C99, Objective-C, Swift, JNI and ctypes.
 *
 * Every function may be called from any thread, checks its pointers, never throws and never
 * aborts. Strings are UTF-8 and borrowed for the duration of the call. */
#ifndef VNTR_H
#define VNTR_H

#include <stddef.h>
#include <stdint.h>

#if defined(VNTR_BUILDING_LIBRARY)
#define VNTR_C_API __attribute__((visibility("default")))
#else
#define VNTR_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { VNTR_OK = 0, VNTR_INVALID_ARGUMENT = 1 } vntr_status_t;

/* Log levels, as VantrelLogLevel. */
enum {
  VNTR_LOG_FATAL = 1,
  VNTR_LOG_ERROR = 2,
  VNTR_LOG_WARNING = 4,
  VNTR_LOG_INFO = 8,
  VNTR_LOG_DEBUG = 16,
  VNTR_LOG_VERBOSE = 32
};

/* Wraps VNTRTagManager::fireEvents(events, eventGroup, eventData). `events` holds `count`
 * strings; `event_data_json` is a JSON object as text, NULL meaning an empty object. Text that
 * is not a JSON object is dropped with the invalid-event-data log line. Returns
 * VNTR_INVALID_ARGUMENT for NULL pointers or strings that are not UTF-8; otherwise VNTR_OK,
 * whether or not the call was admitted (rejections are only logged). */
VNTR_C_API vntr_status_t vntr_fire_events(const char* const* events, size_t count,
                                          const char* event_group, const char* event_data_json);

/* Wraps VNTRTagManager::subjectToGdprConsent(): 1 or 0 (undetermined reads as 1). */
VNTR_C_API int vntr_subject_to_gdpr_consent(void);
/* Wraps VNTRTagManager::hasGdprConsent(): 1 or 0 (undetermined reads as 0). */
VNTR_C_API int vntr_has_gdpr_consent(void);

/* Wraps VNTRPreferences::setLogLevel; a value that is not a log level is ignored. */
VNTR_C_API void vntr_set_log_level(int level);
/* Wraps VNTRPreferences::logLevel. */
VNTR_C_API int vntr_log_level(void);

/* Receives every log message of every level, on the library's main queue. */
typedef void (*vntr_log_callback)(int level, const char* const* strings, size_t count,
                                  void* context);
/* Wraps VNTRPreferences::setLoggingCallback; NULL restores the default (stderr). */
VNTR_C_API void vntr_set_logging_callback(vntr_log_callback callback, void* context);

/* Receives statistic increments (VNTRStatistic raw values), on library threads. */
typedef void (*vntr_statistic_callback)(int64_t statistic, int64_t adjustment, void* context);
/* Wraps VNTRPreferences::setTagManagerDelegate; NULL clears the delegate. */
VNTR_C_API void vntr_set_delegate(vntr_statistic_callback callback, void* context);

/* Wraps VNTRPreferences::setServerURL. */
VNTR_C_API vntr_status_t vntr_set_server_url(const char* url);
/* Wraps VNTRPreferences::setRequestTimeout (seconds); values that are not positive finite
 * numbers are ignored. */
VNTR_C_API void vntr_set_request_timeout(double seconds);

/* Wraps UserDefaults::setString; a NULL value removes the key (removeObjectForKey). Any of these
 * three creates the standard user defaults and so freezes the paths below: set paths first. */
VNTR_C_API vntr_status_t vntr_user_defaults_set_string(const char* key, const char* value);
/* Wraps UserDefaults::setDouble; values that are not finite are refused. */
VNTR_C_API vntr_status_t vntr_user_defaults_set_double(const char* key, double value);
/* Wraps UserDefaults::setBool. */
VNTR_C_API vntr_status_t vntr_user_defaults_set_bool(const char* key, int value);

/* Wrap VNTRTagManager::setMainBundlePath, setDocumentsDirectory and setUserDefaultsPath.
 * Effective only before the library's first use; later calls change nothing and return
 * VNTR_INVALID_ARGUMENT. */
VNTR_C_API vntr_status_t vntr_set_main_bundle_path(const char* directory);
VNTR_C_API vntr_status_t vntr_set_documents_directory(const char* directory);
VNTR_C_API vntr_status_t vntr_set_user_defaults_path(const char* file);

/* Wraps VNTRTagManager::useHostReachability: the host reports reachability itself (flags:
 * reachable 0x2, cellular 0x40000). Only before first use; VNTR_INVALID_ARGUMENT afterwards. */
VNTR_C_API vntr_status_t vntr_use_host_reachability(uint32_t initial_flags);
/* Wraps VNTRTagManager::updateReachabilityFlags. */
VNTR_C_API void vntr_update_reachability_flags(uint32_t flags);

/* Network settings. */
/* Wraps VNTRPreferences::setConsentCheckURL; NULL or "" restores the URL derived from the
 * server URL (same scheme, host and port, path "/gdpr/check/json/current"). */
VNTR_C_API vntr_status_t vntr_set_consent_check_url(const char* url);
/* Wraps VNTRPreferences::setRetryBackoff: non-zero turns backoff after failed batches on. */
VNTR_C_API void vntr_set_retry_backoff(int enabled);

VNTR_C_API extern const double VNTRTagManagerVersionNumber;
VNTR_C_API extern const unsigned char VNTRTagManagerVersionString[];

#ifdef __cplusplus
}
#endif

#endif /* VNTR_H */
