#pragma once

#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "transport/HTTPClientProtocol.hpp"

namespace vntr {

/// A transport that answers every batch at once, without a network, from the canned answers
/// "base_response_sync_event.js" and "base_response_get_events.js": one answer per event
/// request (echoing its id) and per get-events request. Its fields shape the reply, so the
/// requester and response handling can be driven through every outcome.
///
/// `post` completes synchronously on the calling thread. Fields may be set from any thread.
class HTTPMockClient final : public HTTPClientProtocol {
 public:
  struct Fields {
    int64_t batchInterval = 2000;                   // "batchInterval" of get-events answers
    std::optional<nlohmann::json> qualifiedEvents;  // source of "qualifiedEvents"/"expireEvents"
    long statusCode = 200;
    std::optional<nlohmann::json> errorObject;    // added as "error" to every event answer
    std::optional<std::string> jsonDataResponse;  // sent instead of the generated body
    bool shouldSendNilURLResponse = false;
    bool shouldSendNilData = false;
  };

  HTTPMockClient() = default;
  explicit HTTPMockClient(Fields fields) : fields_(std::move(fields)) {}

  Fields fields() const;
  void setFields(Fields fields);

  void post(std::string body, const std::string& url, HTTPCompletion completion) override;

  /// The canned answer templates, loaded once; a missing one is a broken build.
  static const nlohmann::json& baseSync();
  static const nlohmann::json& baseGet();

 private:
  mutable std::mutex mutex_;
  Fields fields_;  // guarded by mutex_
};

}  // namespace vntr
