#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>
#include <vntr/Executor.hpp>
#include <vntr/Export.hpp>
#include <vntr/VNTRPreferences.hpp>

namespace vntr {

class Runtime;
class GdprConsent;
enum class VNTREventPriority : int64_t;

/// The library's entry point. The host calls `fireEvents`; everything else happens on a single
/// process-wide instance created by the first call.
///
/// `fireEvents` may be called from any thread and returns at once: the admission checks run on
/// the caller's thread, the request is built and stored on the library's store queue, and
/// sending happens in the background. Nothing is ever thrown or returned: every rejection is one
/// log line.
class VNTR_API VNTRTagManager {
 public:
  /// Records `events` of `eventGroup` with `eventData` (a JSON object) if the site ID is set,
  /// consent is established, and the server's qualified-event list admits them.
  static void fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                         const nlohmann::json& eventData);

  /// The process-wide instance; created on first use (which decides consent) and never destroyed.
  static VNTRTagManager& sharedInstance();

  /// Whether the user is subject to GDPR; true while undetermined.
  bool subjectToGdprConsent() const;
  /// Whether consent is granted; false while undetermined.
  bool hasGdprConsent() const;

  /// Settings that only take effect before the library's first use; each returns false and
  /// changes nothing afterwards.
  static bool setMainBundlePath(const std::string& directory);
  static bool setDocumentsDirectory(const std::string& directory);
  static bool setUserDefaultsPath(const std::string& file);
  /// Installs the host's own main queue (for example an adapter over its UI loop).
  static bool setMainQueue(std::shared_ptr<Executor> executor);
  /// For hosts where the kernel's routes are not visible (or not meaningful): the host reports
  /// reachability itself with `updateReachabilityFlags`, starting from `initialFlags`
  /// (reachable 0x2, cellular 0x40000). Only before first use, like the settings above.
  static bool useHostReachability(uint32_t initialFlags);
  /// Reports the network state when the host reports reachability; a reachable report sends a
  /// waiting batch at once, so report changes only, as a platform reachability service does.
  /// Ignored when the kernel is the source.
  static void updateReachabilityFlags(uint32_t flags);

  /// Library-internal: a tag manager over an explicit set of components (tests build their own).
  explicit VNTRTagManager(Runtime& runtime);
  ~VNTRTagManager();
  VNTRTagManager(const VNTRTagManager&) = delete;
  VNTRTagManager& operator=(const VNTRTagManager&) = delete;

  /// Library-internal intake: the checks, queueing with `priority`, and, when `startRequester`,
  /// starting the batch sender.
  void fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                  const nlohmann::json& eventData, VNTREventPriority priority, bool startRequester);

 private:
  Runtime& runtime_;
  std::shared_ptr<GdprConsent> consent_;
};

}  // namespace vntr
