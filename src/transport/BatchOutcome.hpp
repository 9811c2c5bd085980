#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "transport/HTTPClientProtocol.hpp"

namespace vntr {

/// What became of one batch, as far as pacing and sizing care. The reply handling itself
/// (statistics, results) does not depend on it.
struct BatchOutcome {
  enum class Kind {
    answered,  ///< a usable answer (also when a few requests went unanswered)
    failed,    ///< no HTTP response, a 5xx or 429, or no usable answer in the body
    tooLarge,  ///< HTTP 413: the server refuses a body this large
  };
  Kind kind = Kind::answered;
  /// Why it failed: curl's error text or the HTTP status; empty for a plain 2xx answer.
  std::string reason;
  /// The wait the server asked for in a Retry-After header.
  std::optional<double> retryAfter;

  /// Classifies a reply. `parsed`: the body was a usable batch answer.
  static BatchOutcome of(const std::optional<HTTPURLResponse>& response,
                         const std::optional<HTTPError>& error, bool hasData, bool parsed);
  /// Writes the reason for a batch of `requests` stored requests, when there is one, at `info`:
  /// shown with verbose logging, quiet in a healthy host's log.
  void log(int64_t requests) const;
};

}  // namespace vntr
