#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "model/VNTRMethodProtocol.hpp"

namespace vntr {

class EventDataManager;
class VNTREventFilter;
struct EventFacts;

/// What a get-events request needs from its surroundings; wired by the runtime.
struct GetEventsEnvironment {
  EventDataManager* store = nullptr;              // ids must not clash with queued events
  std::function<const EventFacts&()> facts;       // site ID, app id, advertising id
  VNTREventFilter* filter = nullptr;              // receives the qualified-event list
  std::function<void(int64_t)> setBatchInterval;  // the requester's, in milliseconds
};

/// The request that asks the server for the qualified-event list and the batch interval. One is
/// built for every batch, sent after the events, and dropped with the batch; it is never stored.
class VNTRGetEvents final : public VNTRMethodProtocol {
 public:
  /// Builds the request on the store queue (its id is checked against queued events); nothing
  /// (after one error line) when it cannot be serialised.
  static std::shared_ptr<VNTRGetEvents> make(const GetEventsEnvironment& env);

  const std::string& id() const override { return id_; }
  const std::string& jsonData() const override { return jsonData_; }
  /// Applies "batchInterval" and, with "expireEvents", "qualifiedEvents"; members of the wrong
  /// type are ignored.
  void processResult(const nlohmann::json& result) override;
  /// A missing answer changes nothing.
  void nilResult() override {}

 private:
  VNTRGetEvents(const GetEventsEnvironment& env, std::string id, std::string jsonData)
      : env_(env), id_(std::move(id)), jsonData_(std::move(jsonData)) {}

  GetEventsEnvironment env_;
  std::string id_;
  std::string jsonData_;
};

}  // namespace vntr
