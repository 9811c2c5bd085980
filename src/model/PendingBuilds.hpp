#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/VNTREventPriority.hpp"

namespace vntr {

/// Event builds waiting for the store queue, packed back to back into chunks of kChunkBytes. A
/// burst of calls then costs about the size of its arguments (instead of a closure, a copied
/// JSON tree and a queue entry per call), and each caller one short lock.
///
/// While the store is behind, at most kMemoryChunks chunks wait in memory; the ones after them
/// go to an unnamed file in the queue's directory and are read back in order when the store gets
/// to them, so a burst of any size holds a bounded amount of memory. Written with plain write(),
/// a spilled call is as safe as one held in memory: the exit hook stores both, and neither
/// survives a killed process. When the file cannot be made or written, calls stay in memory.
/// Any thread; one drainer at a time (the store queue).
class PendingBuilds {
 public:
  using Build = std::function<void(VNTREventPriority, const std::vector<std::string>& events,
                                   const std::string& eventGroup, std::string_view eventDataText)>;

  static constexpr size_t kChunkBytes = 32 * 1024;
  /// Chunks waiting in memory, the one being filled included; later ones are spilled.
  static constexpr size_t kMemoryChunks = 2;

  /// With an empty `spillDirectory` every waiting call stays in memory.
  explicit PendingBuilds(std::string spillDirectory = {});
  ~PendingBuilds();
  PendingBuilds(const PendingBuilds&) = delete;
  PendingBuilds& operator=(const PendingBuilds&) = delete;

  /// Packs one build after the others; true when the caller must schedule a drain. Throws
  /// std::length_error for a piece longer than 4 GiB (nothing of the build is kept then).
  bool append(VNTREventPriority priority, const std::vector<std::string>& events,
              std::string_view eventGroup, std::string_view eventDataText);
  /// Calls `build` for each waiting build, oldest first; the next `append` schedules a drain
  /// again. The store queue's, one drain at a time.
  void drain(const Build& build);
  /// Bytes of builds in the spill file that are not drained yet.
  uint64_t spilledBytes();
  /// In a forked child, before anything else touches this: closes the inherited spill file
  /// (the parent goes on using its own) without taking the lock, which a thread of the parent
  /// may have held at the fork.
  void abandonAfterFork();

 private:
  struct Chunk {
    std::string bytes;  // the packed builds, while in memory
    uint64_t fileOffset = 0;
    size_t fileLength = 0;  // > 0: the builds are in the spill file
  };

  // All under mutex_.
  void startChunk(size_t atLeast, std::optional<std::string>& failure);
  bool spill(Chunk& chunk, std::optional<std::string>& failure);
  std::string takeStorage(size_t atLeast);
  void recycle(std::string storage);
  // The drainer's: reads a spilled chunk into readBuffer_; false, after an error line, when the
  // file would not give it back.
  bool readBack(const Chunk& chunk);

  const std::string spillDirectory_;
  std::mutex mutex_;
  std::deque<Chunk> chunks_;  // oldest first; the last one, when in memory, is being filled
  size_t fullInMemory_ = 0;   // chunks in memory before the last one
  std::string spare_;         // the storage of a drained chunk, for the next one
  bool drainScheduled_ = false;
  int fd_ = -1;               // the spill file, once made
  bool spillBroken_ = false;  // the file could not be made or written: memory only
  uint64_t fileEnd_ = 0;      // where the next spilled chunk goes
  uint64_t spilled_ = 0;      // bytes in the file not drained yet
  // The names and group of the last entry packed into the chunk being filled.
  std::vector<std::string> lastEvents_;
  std::string lastGroup_;
  bool hasLast_ = false;

  std::string readBuffer_;  // the drainer's: a spilled chunk read back
};

}  // namespace vntr
