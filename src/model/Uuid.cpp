#include "model/Uuid.hpp"

#include <sys/random.h>

#include <array>
#include <cstdint>
#include <random>

namespace vntr {

std::string makeUuidString() {
  std::array<uint8_t, 16> bytes{};
  size_t filled = 0;
  while (filled < bytes.size()) {
    const ssize_t n = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (n <= 0) break;
    filled += static_cast<size_t>(n);
  }
  if (filled < bytes.size()) {
    // No kernel randomness (a seccomp sandbox, say): fall back to the library's generator.
    thread_local std::mt19937_64 generator{std::random_device{}()};
    for (auto& b : bytes) b = static_cast<uint8_t>(generator());
  }
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace vntr
