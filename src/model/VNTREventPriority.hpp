#pragma once

#include <cstdint>
#include <optional>

namespace vntr {

/// `high` events get a fresh id that the server's answer is matched to; `low` events are sent
/// but their answer is not tracked.
enum class VNTREventPriority : int64_t { low = 0, high = 1 };

/// The priority with this raw value (0 or 1), or nothing.
inline std::optional<VNTREventPriority> makeVNTREventPriority(int64_t rawValue) {
  if (rawValue == 0) return VNTREventPriority::low;
  if (rawValue == 1) return VNTREventPriority::high;
  return std::nullopt;
}

}  // namespace vntr
