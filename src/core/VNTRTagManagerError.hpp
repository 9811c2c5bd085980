#pragma once

#include <optional>
#include <system_error>

namespace vntr {

/// The module's public error type. No operation raises it; it exists as public surface, with
/// the error domain "VNTRTagManager.VNTRTagManagerError" as its category name.
enum class VNTRTagManagerError : int { unknown = 0, invalidArgument = 1, unavailable = 2 };

std::optional<VNTRTagManagerError> makeVNTRTagManagerError(int rawValue);
const std::error_category& vntrTagManagerErrorCategory();
std::error_code make_error_code(VNTRTagManagerError error);

}  // namespace vntr

template <>
struct std::is_error_code_enum<vntr::VNTRTagManagerError> : std::true_type {};
