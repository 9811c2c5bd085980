#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace vntr {

/// A reply that arrived with a status line.
struct HTTPURLResponse {
  HTTPURLResponse() = default;
  HTTPURLResponse(std::string answeringURL, long status,
                  std::optional<double> retryAfter = std::nullopt)
      : url(std::move(answeringURL)), statusCode(status), retryAfterSeconds(retryAfter) {}

  /// The URL that answered: the one requested (redirects are not followed).
  std::string url;
  long statusCode = 0;
  /// The wait in seconds a "Retry-After" header asked for, when it carried a usable value.
  std::optional<double> retryAfterSeconds;
};

/// A failure of the transport itself, or the unformable-URL error.
struct HTTPError {
  /// "CURL" for transfer failures (`code` is then a CURLcode), "URL Error" for a URL string
  /// that does not parse (`code` 9999).
  std::string domain;
  long code = 0;
  std::string localizedDescription;
};

/// Receives the reply's body bytes (absent when none arrived), the response (absent when no
/// status line arrived) and the error (absent on success). Status codes are not interpreted:
/// a 500 with a body arrives as data plus response and no error.
using HTTPCompletion =
    std::function<void(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                       std::optional<HTTPError> error)>;

/// The transport through which batches are posted; implemented by `HTTPClient` for the network
/// and by `HTTPMockClient` for tests and offline use.
class HTTPClientProtocol {
 public:
  virtual ~HTTPClientProtocol() = default;
  /// Posts `body` to `url`; `completion` is called exactly once. May be called on any thread and
  /// returns at once; the thread the completion runs on is the implementation's.
  virtual void post(std::string body, const std::string& url, HTTPCompletion completion) = 0;
};

}  // namespace vntr
