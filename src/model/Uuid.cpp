#include "model/Uuid.hpp"

#include <pthread.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <random>

namespace vntr {
namespace {

// Bumped in a forked child, so a buffer filled before the fork is never handed out twice.
std::atomic<unsigned> forkGeneration{0};

// Kernel randomness fetched 64 UUIDs at a time: every id of a burst would otherwise cost a
// system call, which on a virtual machine is a good part of storing an event.
class RandomBytes {
 public:
  void take(uint8_t* out, size_t count) {
    const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
    if (next_ + count > buffer_.size() || generation != generation_) refill(generation);
    std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(next_), count, out);
    next_ += count;
  }

 private:
  void refill(unsigned generation) {
    static const bool registered = [] {
      pthread_atfork(nullptr, nullptr,
                     [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
      return true;
    }();
    (void)registered;
    size_t filled = 0;
    while (filled < buffer_.size()) {
      const ssize_t n = getrandom(buffer_.data() + filled, buffer_.size() - filled, 0);
      if (n <= 0) break;
      filled += static_cast<size_t>(n);
    }
    if (filled < buffer_.size()) {
      // No kernel randomness (a seccomp sandbox, say): fall back to the library's generator.
      thread_local std::mt19937_64 generator{std::random_device{}()};
      for (size_t i = filled; i < buffer_.size(); ++i) {
        buffer_[i] = static_cast<uint8_t>(generator());
      }
    }
    next_ = 0;
    generation_ = generation;
  }

  std::array<uint8_t, 64 * 16> buffer_{};
  size_t next_ = sizeof(buffer_);  // empty until first use
  unsigned generation_ = 0;
};

}  // namespace

std::string makeUuidString() {
  thread_local RandomBytes random;
  std::array<uint8_t, 16> bytes{};
  random.take(bytes.data(), bytes.size());
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::array<char, 36> text{};
  size_t at = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text[at++] = '-';
    text[at++] = kHex[bytes[i] >> 4];
    text[at++] = kHex[bytes[i] & 0x0F];
  }
  return std::string(text.data(), text.size());
}

}  // namespace vntr
