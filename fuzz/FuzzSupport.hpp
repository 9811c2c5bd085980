#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace vntr {
class ManualExecutor;
}

namespace vntr::fuzz {

/// A fresh directory for one fuzzer process: under $VNTR_FUZZ_SCRATCH when set, else on tmpfs
/// when /dev/shm is writable (files are rewritten and flushed for every input, which a disk
/// would make slow), else under the system's temporary directory. Removed when the process exits
/// normally; after a crash, whoever set $VNTR_FUZZ_SCRATCH cleans up.
std::filesystem::path scratchDirectory();

/// Makes the library's main queue a manual queue that only the fuzzer steps, and silences the
/// log: log lines and timers then never pile up on another thread between inputs. Call once,
/// before anything else touches the library; the queue lives for the whole process.
ManualExecutor& quietMainQueue();

/// Runs every log delivery and other task due on the main queue, so nothing accumulates from
/// one input to the next.
void drainMainQueue();

/// Runs `body` on a new thread with a stack of `stackBytes` and waits for it: code that
/// recurses per nesting level of its input then fails here long before it would on the main
/// thread's 8 MiB, the way it would on a host's small worker thread.
void runOnSmallStack(const std::function<void()>& body, size_t stackBytes = size_t{256} * 1024);

/// Replaces `file` with the bytes of one input. Aborts if the file cannot be written: a fuzzer
/// that silently tests nothing is worse than one that stops.
void writeInput(const std::filesystem::path& file, const uint8_t* data, size_t size);

inline std::string_view asText(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace vntr::fuzz
