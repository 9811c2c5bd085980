#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vntr {

class Runtime;
class GdprConsent;
enum class VNTREventPriority : int64_t;

/// The tag manager behind the public `VNTRTagManager`: one per runtime (tests build their own
/// runtimes, so their own tag managers). Creating it decides consent and starts following the
/// consent keys.
class TagManagerCore {
 public:
  explicit TagManagerCore(Runtime& runtime);
  ~TagManagerCore();
  TagManagerCore(const TagManagerCore&) = delete;
  TagManagerCore& operator=(const TagManagerCore&) = delete;

  /// Intake: the admission checks in order (the first that fails logs its line and drops the
  /// call), queueing with `priority`, and, when `startRequester`, starting the batch sender.
  void fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                  const nlohmann::json& eventData, VNTREventPriority priority, bool startRequester);

  bool subjectToGdprConsent() const;
  bool hasGdprConsent() const;

 private:
  Runtime& runtime_;
  std::shared_ptr<GdprConsent> consent_;
};

}  // namespace vntr
