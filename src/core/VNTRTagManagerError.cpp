#include "core/VNTRTagManagerError.hpp"

#include <string>

namespace vntr {
namespace {
class Category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "VNTRTagManager.VNTRTagManagerError"; }
  std::string message(int code) const override {
    switch (code) {
      case 0:
        return "unknown";
      case 1:
        return "invalid argument";
      case 2:
        return "unavailable";
      default:
        return "unrecognised error";
    }
  }
};
}  // namespace

std::optional<VNTRTagManagerError> makeVNTRTagManagerError(int rawValue) {
  if (rawValue < 0 || rawValue > 2) return std::nullopt;
  return static_cast<VNTRTagManagerError>(rawValue);
}

const std::error_category& vntrTagManagerErrorCategory() {
  static const auto* const category = new Category;  // never destroyed
  return *category;
}

std::error_code make_error_code(VNTRTagManagerError error) {
  return {static_cast<int>(error), vntrTagManagerErrorCategory()};
}

}  // namespace vntr
