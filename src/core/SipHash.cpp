#include "core/SipHash.hpp"

#include <bit>

namespace vntr {

namespace {

uint64_t loadLittleEndian(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
  return value;
}

void storeLittleEndian(uint64_t value, uint8_t* bytes) {
  for (size_t i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

struct State {
  uint64_t v0, v1, v2, v3;

  void round() {
    v0 += v1;
    v1 = std::rotl(v1, 13);
    v1 ^= v0;
    v0 = std::rotl(v0, 32);
    v2 += v3;
    v3 = std::rotl(v3, 16);
    v3 ^= v2;
    v0 += v3;
    v3 = std::rotl(v3, 21);
    v3 ^= v0;
    v2 += v1;
    v1 = std::rotl(v1, 17);
    v1 ^= v2;
    v2 = std::rotl(v2, 32);
  }

  void compress(uint64_t block) {
    v3 ^= block;
    round();
    round();
    v0 ^= block;
  }

  uint64_t finish() {
    for (int i = 0; i < 4; ++i) round();
    return v0 ^ v1 ^ v2 ^ v3;
  }
};

}  // namespace

std::array<uint8_t, 16> sipHash128(const std::array<uint8_t, 16>& key, std::string_view message) {
  const uint64_t k0 = loadLittleEndian(key.data(), 8);
  const uint64_t k1 = loadLittleEndian(key.data() + 8, 8);
  State s{0x736f6d6570736575ULL ^ k0, 0x646f72616e646f6dULL ^ k1, 0x6c7967656e657261ULL ^ k0,
          0x7465646279746573ULL ^ k1};
  s.v1 ^= 0xee;  // the 128-bit variant

  const auto* bytes = reinterpret_cast<const uint8_t*>(message.data());
  const size_t fullBlocks = message.size() / 8;
  for (size_t i = 0; i < fullBlocks; ++i) s.compress(loadLittleEndian(bytes + 8 * i, 8));
  const size_t rest = message.size() % 8;
  s.compress(loadLittleEndian(bytes + 8 * fullBlocks, rest) |
             (static_cast<uint64_t>(message.size() & 0xff) << 56));

  std::array<uint8_t, 16> out{};
  s.v2 ^= 0xee;
  storeLittleEndian(s.finish(), out.data());
  s.v1 ^= 0xdd;
  storeLittleEndian(s.finish(), out.data() + 8);
  return out;
}

}  // namespace vntr
