#include <cxxabi.h>

#include <vntr/VNTRTagManager.hpp>

#include "Runtime.hpp"
#include "core/MainQueue.hpp"
#include "core/ProcessSettings.hpp"
#include "core/VNTRDebug.hpp"
#include "facade/GdprConsent.hpp"
#include "facade/TagManagerCore.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"

namespace vntr {

void VNTRTagManager::fireEvents(const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData) {
  try {
    Runtime::shared().tagManager().fireEvents(events, eventGroup, eventData,
                                              VNTREventPriority::high, true);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // Nothing may reach the host: an allocation failure here loses this one call only.
  }
}

VNTRTagManager& VNTRTagManager::sharedInstance() {
  Runtime::shared().tagManager();  // decides consent on first use
  static VNTRTagManager instance;  // a handle only: the state lives in the runtime's core
  return instance;
}

namespace {
// Runs one of the runtime's flushes; nothing but a forced unwind may reach the host.
template <typename Flush>
bool emptied(Flush flush) {
  try {
    return flush() == Runtime::FlushResult::empty;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return false;
  }
}
}  // namespace

bool VNTRTagManager::flush(std::chrono::milliseconds timeout) {
  return emptied([timeout] { return Runtime::shared().flush(timeout); });
}

bool VNTRTagManager::shutdown(std::chrono::milliseconds timeout) {
  return emptied([timeout] { return Runtime::shared().shutdown(timeout); });
}

bool VNTRTagManager::subjectToGdprConsent() const {
  return Runtime::shared().tagManager().subjectToGdprConsent();
}

bool VNTRTagManager::hasGdprConsent() const {
  return Runtime::shared().tagManager().hasGdprConsent();
}

TagManagerCore::TagManagerCore(Runtime& runtime)
    : runtime_(runtime),
      consent_(std::make_shared<GdprConsent>(
          runtime.userDefaults(), runtime.consentGet(),
          GdprConsent::CheckEndpoint([&runtime] { return runtime.consentCheckURL(); }))) {
  // Decides consent now, on the creating thread, and re-decides whenever one of the three
  // consent keys changes.
  consent_->start();
}

TagManagerCore::~TagManagerCore() = default;

bool TagManagerCore::subjectToGdprConsent() const { return consent_->subjectToGdprConsent(); }

bool TagManagerCore::hasGdprConsent() const { return consent_->hasGdprConsent(); }

bool VNTRTagManager::setMainBundlePath(const std::string& directory) {
  return vntr::setMainBundlePath(directory);
}

bool VNTRTagManager::setDocumentsDirectory(const std::string& directory) {
  return vntr::setDocumentsDirectory(directory);
}

bool VNTRTagManager::setUserDefaultsPath(const std::string& file) {
  return vntr::setUserDefaultsPath(file);
}

bool VNTRTagManager::setSiteID(const std::string& siteID) { return Runtime::setHostSiteID(siteID); }

bool VNTRTagManager::setMainQueue(std::shared_ptr<Executor> executor) {
  return installMainQueue(std::move(executor));
}

bool VNTRTagManager::useHostReachability(uint32_t initialFlags) {
  return Runtime::useHostReachability(initialFlags);
}

void VNTRTagManager::updateReachabilityFlags(uint32_t flags) {
  try {
    auto& runtime = Runtime::shared();
    if (runtime.isShutDown()) {
      Debug(VantrelLogLevel::error, Runtime::kShutDownLine);
      return;
    }
    auto& reachability = runtime.reachability();
    if (reachability.source() == VNTRReachability::Source::host) reachability.updateFlags(flags);
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    // Nothing may reach the host.
  }
}

void TagManagerCore::fireEvents(const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData,
                                VNTREventPriority priority, bool startRequester) {
  if (runtime_.isShutDown()) {
    Debug(VantrelLogLevel::error, Runtime::kShutDownLine);
    return;
  }
  if (!runtime_.siteID()) {
    Debug(VantrelLogLevel::error,
          "The Site ID for the VNTR Tag Manager has not been set.  Please see previous errors for "
          "the reasons this might be happening.");
    return;
  }
  // Undetermined consent (a remote check in flight, say) rejects too; nothing is held back.
  if (consent_->hasGdprConsentValue() != true) {
    Debug(VantrelLogLevel::error,
          "GDPR consent was not granted for this app/purpose. Please re-initialize.");
    return;
  }
  if (eventGroup.empty()) {
    Debug(VantrelLogLevel::error, "No event group provided");
    return;
  }
  if (events.empty()) {
    Debug(VantrelLogLevel::error, "No events provided");
    return;
  }
  auto& filter = runtime_.filter();
  if (!filter.admits(events)) {
    Debug(VantrelLogLevel::verbose, "No qualified events found.  Ignoring event");
    return;
  }
  VNTRSyncEvent::createEvent(runtime_.syncEventEnvironment(), events, eventGroup, eventData,
                             priority);
  if (startRequester) runtime_.fireRequester(filter.wantsImmediateSend(events));
}

}  // namespace vntr
