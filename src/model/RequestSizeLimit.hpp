#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vntr {

/// The largest event request the library accepts, in UTF-8 bytes of its JSON text (the caller's
/// events, group and event data plus about 1 KB of device facts). Common analytics ingestion
/// endpoints refuse single events above 1 MB, and a request no server takes would only sit in
/// the queue, so a larger one is refused when the call comes in and nothing is stored.
constexpr size_t kMaxEventRequestBytes = 1'000'000;

/// The bytes the caller's arguments alone add to a request: a lower bound of its size, known
/// before the request is built.
size_t argumentBytes(const std::vector<std::string>& events, std::string_view eventGroup,
                     std::string_view eventDataText);

/// True, after one `error` line, when a request of `bytes` is above kMaxEventRequestBytes.
bool refuseOversizedRequest(size_t bytes);

}  // namespace vntr
