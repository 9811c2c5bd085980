#include <vntr/VNTRTagManager.hpp>

#include "Runtime.hpp"
#include "core/MainQueue.hpp"
#include "core/VNTRDebug.hpp"
#include "model/VNTREventPriority.hpp"

namespace vntr {

void VNTRTagManager::fireEvents(const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData) {
  try {
    sharedInstance().fireEvents(events, eventGroup, eventData, VNTREventPriority::high, true);
  } catch (...) {
    // Nothing may reach the host: an allocation failure here loses this one call only.
  }
}

VNTRTagManager& VNTRTagManager::sharedInstance() { return Runtime::shared().tagManager(); }

VNTRTagManager::VNTRTagManager(Runtime& runtime) : runtime_(runtime) {}

VNTRTagManager::~VNTRTagManager() = default;

bool VNTRTagManager::subjectToGdprConsent() const { return true; }

bool VNTRTagManager::hasGdprConsent() const { return false; }

bool VNTRTagManager::setMainBundlePath(const std::string&) { return false; }
bool VNTRTagManager::setDocumentsDirectory(const std::string&) { return false; }
bool VNTRTagManager::setUserDefaultsPath(const std::string&) { return false; }

bool VNTRTagManager::setMainQueue(std::shared_ptr<Executor> executor) {
  return installMainQueue(std::move(executor));
}

void VNTRTagManager::fireEvents(const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData,
                                VNTREventPriority priority, bool startRequester) {
  (void)eventData;
  (void)priority;
  (void)startRequester;
  if (eventGroup.empty()) {
    Debug(VantrelLogLevel::error, "No event group provided");
    return;
  }
  if (events.empty()) {
    Debug(VantrelLogLevel::error, "No events provided");
    return;
  }
}

}  // namespace vntr
