#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.hpp"
#include "model/PendingBuilds.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRMethodProtocol.hpp"

namespace vntr {

class EventDataManager;

/// What every event request carries besides the caller's arguments; computed once by the
/// wiring.
struct EventFacts {
  std::optional<std::string> siteId, appId;
  std::string os, lang, idfa, idfv;
  bool dnt = true;
  std::string hardware, appInstallTime /* timestamp() */, sdkVersion;

  bool operator==(const EventFacts&) const = default;
};

/// The collaborators of event building. Must outlive every build queued with it: the wiring
/// keeps one for the life of the process.
struct SyncEventEnvironment {
  EventDataManager& store;
  std::function<const EventFacts&()> facts;     // first call may compute them; on the store queue
  std::function<std::string()> connectionType;  // read when each request is built
  std::shared_ptr<const Clock> clock;
  // Calls waiting for the store; the process-wide one spills to the queue's directory.
  std::shared_ptr<PendingBuilds> pending = std::make_shared<PendingBuilds>();
};

/// One stored event request: the JSON text sent to the tag server, its id and its creation
/// time. Objects are made by `make` and by the store's `deQueue`; they refer to the store that
/// holds them, which must outlive them. Every member except `createEvent` runs on the store
/// queue.
class VNTRSyncEvent final : public VNTRMethodProtocol {
 public:
  /// Event data nested deeper than this (objects and arrays, the top level counting 1) is
  /// refused as invalid, so serialising it can never exhaust a thread's stack.
  static constexpr size_t kMaxEventDataDepth = 512;

  /// Checks and serialises the event data on the calling thread, queues the build for the
  /// store queue and returns at once; any thread. Builds that are already waiting share one
  /// commit (see EventDataManager::performBatched), and each reports `eventCreated` after the
  /// commit that holds it. `env` is used by reference when the build runs. Event data that
  /// `make` would refuse is refused here, after the same error line.
  static void createEvent(const SyncEventEnvironment& env, const std::vector<std::string>& events,
                          const std::string& eventGroup, const nlohmann::json& eventData,
                          VNTREventPriority priority);

  /// Builds the request, inserts it, saves and reports `eventCreated`; on the store queue.
  /// Returns nothing (after one `error` line) when the event data is not a JSON object, holds
  /// NaN or infinity, is nested too deeply, or holds text that is not UTF-8.
  static std::shared_ptr<VNTRSyncEvent> make(const SyncEventEnvironment& env,
                                             const std::vector<std::string>& events,
                                             const std::string& eventGroup,
                                             const nlohmann::json& eventData,
                                             VNTREventPriority priority);

  /// A record of `store` with the given row.
  VNTRSyncEvent(EventDataManager& store, int64_t rowId, std::string id, std::string jsonData,
                double timeStamp);

  const std::string& id() const override { return id_; }
  const std::string& jsonData() const override { return jsonData_; }
  /// Creation time in seconds since 2001-01-01 UTC.
  double timeStamp() const { return timeStamp_; }
  /// The store's row id; -1 when the request could not be stored.
  int64_t rowId() const { return rowId_; }

  /// Reports `eventResultProcessed`, deletes the record and saves; on the store queue.
  void processResult(const nlohmann::json& result) override;
  /// As `processResult`, after a `warning` when the record has an id of its own.
  void nilResult() override;

 private:
  EventDataManager& store_;
  int64_t rowId_;
  std::string id_;
  std::string jsonData_;
  double timeStamp_;
};

}  // namespace vntr
