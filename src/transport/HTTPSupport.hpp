#pragma once

#include <optional>
#include <string>

namespace vntr {

/// A URL as curl's parser normalised it, which is what will be requested.
struct ParsedURL {
  std::string url;
  bool isHTTPS = false;
};

/// Parses `text` with curl's URL parser, which requires a scheme it supports. Empty text or an
/// embedded NUL (which would silently cut the string short) gives nothing.
std::optional<ParsedURL> parseURL(const std::string& text);

/// The request timeout for curl in milliseconds: a value that is not a positive number falls
/// back to the default preference, a huge one is cut to a week, and the result is at least 1.
long timeoutMilliseconds(double seconds);

/// The consent-check URL that belongs to a tag server: the same scheme, host and port as
/// `serverURL`, path "/gdpr/check/json/current", no query, fragment or credentials. Empty when
/// `serverURL` is not an http or https URL.
std::string consentCheckURLFor(const std::string& serverURL);

/// The wait a "Retry-After" header value asks for, in seconds: delay-seconds or an HTTP date
/// (relative to `nowSeconds`, seconds since the Unix epoch). Nothing for a value that is neither;
/// a date in the past gives 0.
std::optional<double> parseRetryAfter(const std::string& value, double nowSeconds);

}  // namespace vntr
