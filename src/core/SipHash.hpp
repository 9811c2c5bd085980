#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vntr {

/// SipHash-2-4 with a 128-bit output: a keyed pseudo-random function, so the output reveals
/// nothing about the key. Used to derive per-application identifiers from a machine secret.
std::array<uint8_t, 16> sipHash128(const std::array<uint8_t, 16>& key, std::string_view message);

}  // namespace vntr
