#include "transport/HTTPSupport.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <string_view>
#include <vntr/VNTRPreferences.hpp>

namespace vntr {
namespace {

// Long enough to mean "never" for a batch, short enough to stay far from overflowing a long.
constexpr double kMaxTimeoutSeconds = 7 * 24 * 3600.0;
constexpr const char* kConsentCheckPath = "/gdpr/check/json/current";

using URLHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

URLHandle parsedHandle(const std::string& text) {
  URLHandle handle(nullptr, curl_url_cleanup);
  if (text.empty() || text.find('\0') != std::string::npos) return handle;
  handle.reset(curl_url());
  if (handle && curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) {
    handle.reset();
  }
  return handle;
}

std::optional<std::string> part(CURLU* handle, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(handle, which, &text, 0) != CURLUE_OK) return std::nullopt;
  std::string copy = text;
  curl_free(text);
  return copy;
}

}  // namespace

std::optional<ParsedURL> parseURL(const std::string& text) {
  const URLHandle handle = parsedHandle(text);
  if (!handle) return std::nullopt;
  const auto url = part(handle.get(), CURLUPART_URL);
  const auto scheme = part(handle.get(), CURLUPART_SCHEME);
  if (!url || !scheme) return std::nullopt;
  return ParsedURL{*url, *scheme == "https"};
}

long timeoutMilliseconds(double seconds) {
  if (!std::isfinite(seconds) || seconds <= 0) seconds = VNTRPreferences::kDefaultRequestTimeout;
  seconds = std::min(seconds, kMaxTimeoutSeconds);
  // At least 1 ms: curl reads 0 as "no timeout at all".
  return std::max(1L, static_cast<long>(std::ceil(seconds * 1000.0)));
}

std::string consentCheckURLFor(const std::string& serverURL) {
  const URLHandle handle = parsedHandle(serverURL);
  if (!handle) return "";
  const auto scheme = part(handle.get(), CURLUPART_SCHEME);
  if (!scheme || (*scheme != "http" && *scheme != "https")) return "";
  // Credentials in the server URL are for the tag server's own path; the check gets none.
  for (const CURLUPart cleared : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_OPTIONS,
                                  CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    curl_url_set(handle.get(), cleared, nullptr, 0);
  }
  if (curl_url_set(handle.get(), CURLUPART_PATH, kConsentCheckPath, 0) != CURLUE_OK) return "";
  return part(handle.get(), CURLUPART_URL).value_or("");
}

std::optional<double> parseRetryAfter(const std::string& value, double nowSeconds) {
  std::string_view text = value;
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  if (text.empty()) return std::nullopt;
  if (std::all_of(text.begin(), text.end(),
                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; })) {
    // More digits than a double holds exactly are still "a very long time".
    return text.size() > 15 ? 1e15 : std::stod(std::string(text));
  }
  const time_t date = curl_getdate(std::string(text).c_str(), nullptr);
  if (date < 0) return std::nullopt;
  return std::max(0.0, static_cast<double>(date) - nowSeconds);
}

}  // namespace vntr
