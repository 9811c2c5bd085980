// Calls waiting for the store, packed into shared buffers. A burst of calls is mostly the same
// event names and group with different data, so an entry that repeats the previous entry's
// names and group in the same buffer says so in one bit instead of carrying them again, and
// every count and length is a variable-length integer (one byte below 128).
//
// Entry: flags (priority in bit 0, kSameNames in bit 1); unless kSameNames, the event count,
// each event and the group; then the event data text. Strings are a length, then the bytes.

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "model/VNTRSyncEvent.hpp"

namespace vntr {
namespace {

constexpr size_t kBufferBytes = 32 * 1024;
constexpr uint8_t kHighPriority = 1;
constexpr uint8_t kSameNames = 2;
constexpr size_t kMaxLength = UINT32_MAX;

void putLength(std::string& buffer, size_t value) {
  if (value > kMaxLength) throw std::length_error("event piece too long");
  while (value >= 0x80) {
    buffer.push_back(static_cast<char>((value & 0x7f) | 0x80));
    value >>= 7;
  }
  buffer.push_back(static_cast<char>(value));
}

void putPiece(std::string& buffer, std::string_view piece) {
  putLength(buffer, piece.size());
  buffer.append(piece);
}

// Packed buffers are written by this file only, so they are well formed.
size_t takeLength(std::string_view& buffer) {
  size_t value = 0;
  for (int shift = 0;; shift += 7) {
    const auto byte = static_cast<uint8_t>(buffer.front());
    buffer.remove_prefix(1);
    value |= static_cast<size_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) return value;
  }
}

std::string_view takePiece(std::string_view& buffer) {
  const size_t size = takeLength(buffer);
  const std::string_view piece = buffer.substr(0, size);
  buffer.remove_prefix(size);
  return piece;
}

}  // namespace

bool PendingBuilds::append(VNTREventPriority priority, const std::vector<std::string>& events,
                           std::string_view eventGroup, std::string_view eventDataText) {
  // The most an entry can take: flags, five bytes per length, the pieces.
  size_t size = 1 + 5 * (events.size() + 3) + eventGroup.size() + eventDataText.size();
  for (const auto& event : events) size += event.size();
  std::scoped_lock lock(mutex_);
  if (buffers_.empty() || buffers_.back().size() + size > buffers_.back().capacity()) {
    buffers_.emplace_back().reserve(std::max(size, kBufferBytes));
    lastEvents_.clear();
    lastGroup_.clear();
    hasLast_ = false;
  }
  std::string& buffer = buffers_.back();
  const size_t start = buffer.size();
  const bool same = hasLast_ && lastGroup_ == eventGroup && lastEvents_ == events;
  try {
    buffer.push_back(static_cast<char>((priority == VNTREventPriority::high ? kHighPriority : 0) |
                                       (same ? kSameNames : 0)));
    if (!same) {
      putLength(buffer, events.size());
      for (const auto& event : events) putPiece(buffer, event);
      putPiece(buffer, eventGroup);
      lastEvents_ = events;
      lastGroup_ = eventGroup;
      hasLast_ = true;
    }
    putPiece(buffer, eventDataText);
  } catch (...) {
    buffer.resize(start);  // nothing half-written stays behind
    hasLast_ = false;
    throw;
  }
  return !std::exchange(drainScheduled_, true);
}

std::deque<std::string> PendingBuilds::takeAll() {
  std::scoped_lock lock(mutex_);
  drainScheduled_ = false;
  hasLast_ = false;
  return std::exchange(buffers_, {});
}

void PendingBuilds::forEach(
    std::string_view buffer,
    const std::function<void(VNTREventPriority, const std::vector<std::string>&, const std::string&,
                             std::string_view)>& build) {
  std::vector<std::string> events;
  std::string eventGroup;
  while (!buffer.empty()) {
    const auto flags = static_cast<uint8_t>(buffer.front());
    buffer.remove_prefix(1);
    if ((flags & kSameNames) == 0) {
      events.resize(takeLength(buffer));
      for (auto& event : events) event = takePiece(buffer);
      eventGroup = takePiece(buffer);
    }
    const auto priority =
        (flags & kHighPriority) != 0 ? VNTREventPriority::high : VNTREventPriority::low;
    build(priority, events, eventGroup, takePiece(buffer));
  }
}

}  // namespace vntr
