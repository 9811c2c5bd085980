#include "transport/BatchOutcome.hpp"

#include "core/VNTRDebug.hpp"

namespace vntr {

namespace {
constexpr long kPayloadTooLarge = 413;
constexpr long kTooManyRequests = 429;
}  // namespace

BatchOutcome BatchOutcome::of(const std::optional<HTTPURLResponse>& response,
                              const std::optional<HTTPError>& error, bool hasData, bool parsed) {
  if (!response) {
    std::string reason = error && !error->localizedDescription.empty()
                             ? error->localizedDescription
                             : std::string("no HTTP response");
    return {Kind::failed, std::move(reason), std::nullopt};
  }
  const long status = response->statusCode;
  std::string reason = "HTTP status " + std::to_string(status);
  if (status == kPayloadTooLarge) return {Kind::tooLarge, std::move(reason), std::nullopt};
  const bool good = status >= 200 && status <= 299;
  if (!hasData) {
    reason += " without a body";
  } else if (!parsed) {
    reason += " with a body that is not a batch answer";
  }
  const bool failed = status >= 500 || status == kTooManyRequests || !hasData || !parsed;
  if (!failed && good) reason.clear();
  return {failed ? Kind::failed : Kind::answered, std::move(reason), response->retryAfterSeconds};
}

void BatchOutcome::log(int64_t requests) const {
  if (reason.empty()) return;
  std::string line = "Batch of " + std::to_string(requests) + " request" +
                     (requests == 1 ? "" : "s") + " failed: " + reason;
  if (retryAfter)
    line += " (Retry-After " + std::to_string(static_cast<int64_t>(*retryAfter)) + " s)";
  Debug(VantrelLogLevel::info, line);
}

}  // namespace vntr
