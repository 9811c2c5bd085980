#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "transport/VNTRRemoteResponse.hpp"

namespace vntr {

/// The server's whole answer to one batch. Strict about the envelope (a JSON array of objects),
/// tolerant per entry (unusable entries are skipped with a warning).
class VNTRRequestResponse {
 public:
  /// Answers larger than this are not parsed: they cannot be a reply to 81 requests.
  static constexpr size_t kMaxBodyBytes = 8 * 1024 * 1024;
  /// Deeper nesting is refused before parsing, so a hostile body cannot exhaust the stack.
  static constexpr size_t kMaxDepth = 128;

  /// The parsed answer, or nothing (after one warning line) when the body is not a JSON array
  /// of objects.
  static std::optional<VNTRRequestResponse> make(std::string_view data);

  std::vector<VNTRRemoteResponse> methodResponses;
};

}  // namespace vntr
