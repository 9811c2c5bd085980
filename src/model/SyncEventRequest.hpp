#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Extensions.hpp"
#include "store/StoreStatements.hpp"

namespace vntr {

struct SyncEventEnvironment;

/// Logged when the caller's events or group (or a device fact) cannot be written as JSON.
inline constexpr const char* kSerializationFailed = "Sync Event Init :  serialization failed.";

/// The JSON text of one event request: written out (`writer` null), or as the parts a shared
/// writer makes the text from.
struct SyncEventRequest {
  std::string text;
  std::shared_ptr<const store::RequestWriter> writer;
  size_t size = 0;  // bytes of the written-out text
};

/// Builds the request of one event from the template, the device facts and the caller's
/// arguments; `eventDataText` is already serialised and goes in as it is. With `asParts` the
/// request may come as parts (see store::RequestWriter). Nothing, after the failure line, when a
/// piece cannot be written as JSON. On the store queue.
std::optional<SyncEventRequest> buildSyncEventRequest(
    const SyncEventEnvironment& env, const std::string& id, const std::vector<std::string>& events,
    const std::string& eventGroup, std::string_view eventDataText, TimePoint now, bool asParts);

}  // namespace vntr
