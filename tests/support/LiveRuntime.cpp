#include "support/LiveRuntime.hpp"

#include <fstream>

#include "core/SerialExecutor.hpp"
#include "facade/TagManagerCore.hpp"
#include "model/VNTREventPriority.hpp"
#include "store/EventDataManager.hpp"
#include "support/Harness.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::test {

ProcessPaths LiveRuntime::pathsUnder(const std::filesystem::path& root) {
  return {root / "bundle", root / "documents", root / "config" / "defaults.json"};
}

LiveRuntime::LiveRuntime(const std::filesystem::path& root, LiveRuntimeOptions options) {
  const auto paths = pathsUnder(root);
  std::filesystem::create_directories(paths.mainBundleDirectory);
  if (options.siteId) {
    std::ofstream(paths.mainBundleDirectory / "VantrelTagManagerSDKInfo.plist")
        << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>VantrelSiteID</key><string>12345</string></dict></plist>
)";
  }
  defaults_ = std::make_shared<UserDefaults>(paths.userDefaultsFile);
  if (options.notSubjectToGdpr) defaults_->setString("IABConsent_SubjectToGDPR", "0");

  RuntimeOptions runtimeOptions;
  runtimeOptions.mainQueue = std::make_shared<SerialExecutor>("TestMain");
  runtimeOptions.storeQueue = std::make_shared<SerialExecutor>("TestStore");
  runtimeOptions.paths = paths;
  runtimeOptions.facts = std::make_shared<FakeFacts>();
  runtimeOptions.userDefaults = defaults_;
  runtimeOptions.reachabilitySource = VNTRReachability::Source::host;
  runtimeOptions.initialReachabilityFlags = VNTRReachability::kReachable;
  runtimeOptions.consentCheckURL = options.consentCheckURL;
  runtime_ = std::make_unique<Runtime>(std::move(runtimeOptions));

  // Made now rather than by the first event, so the pacing is in place before anything fires.
  auto& requester = runtime_->requester();
  if (options.batchIntervalMs) requester.setBatchInterval(*options.batchIntervalMs);
  if (options.firstBatchDelayMs) {
    requester.nextBatchInterval.store(static_cast<double>(*options.firstBatchDelayMs) / 1000.0);
  }
}

LiveRuntime::~LiveRuntime() { runtime_.reset(); }

void LiveRuntime::fireEvents(const std::vector<std::string>& events, const std::string& eventGroup,
                             const nlohmann::json& eventData) {
  runtime_->tagManager().fireEvents(events, eventGroup, eventData, VNTREventPriority::high, true);
}

int64_t LiveRuntime::storedCount() {
  auto& store = runtime_->store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

}  // namespace vntr::test
