// Calls waiting for the store, packed into chunks. A burst of calls is mostly the same event
// names and group with different data, so an entry that repeats the previous entry's names and
// group in the same chunk says so in one bit instead of carrying them again, and every count and
// length is a variable-length integer (one byte below 128).
//
// Entry: flags (priority in bit 0, kSameNames in bit 1); unless kSameNames, the event count,
// each event and the group; then the event data text. Strings are a length, then the bytes.

#include "model/PendingBuilds.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "core/VNTRDebug.hpp"
#include "platform/linux/Files.hpp"

namespace vntr {
namespace {

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

// Chunks are written by this file only (a spilled one is read back whole or not at all), so
// they are well formed.
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

void forEach(std::string_view buffer, const PendingBuilds::Build& build) {
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

std::string errnoText(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer);  // GNU: returns the text
}

// An unnamed file in `directory`: nobody else can open it, and its space goes back to the file
// system when the process ends, however it ends.
int openSpillFile(const std::string& directory) {
  int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  // A file system without unnamed files: a named one, removed at once.
  std::string name = joinPath(directory, "requests_Data.sqlite-intake-XXXXXX");
  fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) ::unlink(name.c_str());
  return fd;
}

bool writeAllAt(int fd, std::string_view bytes, uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool readAllAt(int fd, std::string& into, size_t length, uint64_t offset) {
  into.resize(length);
  size_t done = 0;
  while (done < length) {
    const ssize_t n =
        ::pread(fd, into.data() + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Frees the string's buffer. Assigning an empty string would not: libstdc++ copies a short
// string into the buffer the target already has.
void letGo(std::string& storage) { std::string().swap(storage); }

}  // namespace

PendingBuilds::PendingBuilds(std::string spillDirectory)
    : spillDirectory_(std::move(spillDirectory)) {}

PendingBuilds::~PendingBuilds() {
  if (fd_ >= 0) ::close(fd_);
}

bool PendingBuilds::append(VNTREventPriority priority, const std::vector<std::string>& events,
                           std::string_view eventGroup, std::string_view eventDataText) {
  // The most an entry can take: flags, five bytes per length, the pieces.
  size_t size = 1 + 5 * (events.size() + 3) + eventGroup.size() + eventDataText.size();
  for (const auto& event : events) size += event.size();
  std::optional<std::string> failure;
  bool scheduleDrain = false;
  {
    std::scoped_lock lock(mutex_);
    if (chunks_.empty() || chunks_.back().fileLength > 0 ||
        chunks_.back().bytes.size() + size > chunks_.back().bytes.capacity()) {
      startChunk(size, failure);
    }
    std::string& buffer = chunks_.back().bytes;
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
    scheduleDrain = !std::exchange(drainScheduled_, true);
  }
  if (failure) {
    Debug(VantrelLogLevel::warning,
          "Calls waiting for the event store stay in memory: no spill file (" + *failure + ")");
  }
  return scheduleDrain;
}

void PendingBuilds::startChunk(size_t atLeast, std::optional<std::string>& failure) {
  if (!chunks_.empty() && chunks_.back().fileLength == 0) {
    // The chunk being filled is full. Past the chunks allowed in memory it goes to the file,
    // and its storage takes the next builds.
    Chunk& full = chunks_.back();
    if (fullInMemory_ + 1 < kMemoryChunks || !spill(full, failure)) ++fullInMemory_;
  }
  hasLast_ = false;
  chunks_.push_back(Chunk{takeStorage(atLeast)});
}

bool PendingBuilds::spill(Chunk& chunk, std::optional<std::string>& failure) {
  if (spillDirectory_.empty() || spillBroken_) return false;
  if (fd_ < 0) fd_ = openSpillFile(spillDirectory_);
  if (fd_ < 0 || !writeAllAt(fd_, chunk.bytes, fileEnd_)) {
    // Memory still holds every call: nothing is lost, the burst only costs more of it.
    failure = errnoText(errno);
    spillBroken_ = true;
    return false;
  }
  chunk.fileOffset = fileEnd_;
  chunk.fileLength = chunk.bytes.size();
  fileEnd_ += chunk.fileLength;
  spilled_ += chunk.fileLength;
  chunk.bytes.clear();
  recycle(std::move(chunk.bytes));
  chunk.bytes = std::string();
  return true;
}

std::string PendingBuilds::takeStorage(size_t atLeast) {
  std::string storage = std::exchange(spare_, std::string());
  storage.clear();
  storage.reserve(std::max(atLeast, kChunkBytes));
  return storage;
}

void PendingBuilds::recycle(std::string storage) {
  // One chunk's storage is kept; one made for an outsized entry is let go.
  if (storage.capacity() <= kChunkBytes && storage.capacity() > spare_.capacity()) {
    spare_ = std::move(storage);
  }
}

void PendingBuilds::drain(const Build& build) {
  // The chunks waiting now; an append from here on schedules the next drain, which then runs
  // after the store work queued meanwhile (a batch's dequeue or answers), not after the burst.
  size_t left = 0;
  {
    std::scoped_lock lock(mutex_);
    drainScheduled_ = false;
    left = chunks_.size();
  }
  for (; left > 0; --left) {
    Chunk chunk;
    {
      std::scoped_lock lock(mutex_);
      if (chunks_.empty()) break;
      chunk = std::move(chunks_.front());
      chunks_.pop_front();
      if (chunks_.empty()) {
        hasLast_ = false;  // it was being filled: the next append starts a new chunk
      } else if (chunk.fileLength == 0) {
        --fullInMemory_;
      }
    }
    if (chunk.fileLength > 0 && !readBack(chunk)) continue;
    forEach(chunk.fileLength > 0 ? std::string_view(readBuffer_) : chunk.bytes, build);
    if (readBuffer_.capacity() > 2 * kChunkBytes) letGo(readBuffer_);  // outsized
    if (chunk.fileLength == 0) {
      std::scoped_lock lock(mutex_);
      recycle(std::move(chunk.bytes));
    }
  }
  std::scoped_lock lock(mutex_);
  // Everything spilled has been read back: the file starts over, and the read buffer and the
  // spare chunk are let go until a burst spills again (a host calling now and then keeps the
  // spare: each of its calls would otherwise allocate a chunk).
  if (chunks_.empty() && spilled_ == 0 && fileEnd_ > 0 && ::ftruncate(fd_, 0) == 0) {
    fileEnd_ = 0;
    letGo(readBuffer_);
    letGo(spare_);
  }
}

bool PendingBuilds::readBack(const Chunk& chunk) {
  const bool read = readAllAt(fd_, readBuffer_, chunk.fileLength, chunk.fileOffset);
  const int error = errno;
  {
    std::scoped_lock lock(mutex_);
    spilled_ -= chunk.fileLength;
  }
  if (!read) {
    Debug(VantrelLogLevel::error,
          "Calls waiting for the event store were lost: " + std::to_string(chunk.fileLength) +
              " bytes of the spill file could not be read back (" + errnoText(error) + ")");
  }
  return read;
}

uint64_t PendingBuilds::spilledBytes() {
  std::scoped_lock lock(mutex_);
  return spilled_;
}

void PendingBuilds::abandonAfterFork() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  spillBroken_ = true;
}

}  // namespace vntr
