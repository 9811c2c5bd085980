#include "facade/GdprConsent.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>
#include <vector>

#include "core/VNTRDebug.hpp"

namespace vntr {

namespace {

constexpr int8_t kAbsent = -1;

constexpr const char* kSubjectToGdprKey = "IABConsent_SubjectToGDPR";
constexpr const char* kParsedPurposeConsentsKey = "IABConsent_ParsedPurposeConsents";
constexpr const char* kParsedVendorConsentsKey = "IABConsent_ParsedVendorConsents";

// Vendor 24 is the one whose consent we need; purpose 1 is storage and access.
constexpr size_t kVendorIndex = 23;

int8_t encode(bool value) { return value ? 1 : 0; }

std::optional<bool> decode(int8_t value) {
  if (value == kAbsent) return std::nullopt;
  return value == 1;
}

/// One code point of UTF-8 at `i`: its value and length; an invalid byte reads as U+FFFD.
std::pair<char32_t, size_t> decodeAt(std::string_view text, size_t i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
  if (length == 0 || i + length > text.size()) return {0xFFFD, 1};
  char32_t point = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return {0xFFFD, 1};
    point = (point << 6) | (next & 0x3F);
  }
  return {point, length};
}

bool extendsCharacter(char32_t point) {
  return (point >= 0x0300 && point <= 0x036F) || (point >= 0x1AB0 && point <= 0x1AFF) ||
         (point >= 0x1DC0 && point <= 0x1DFF) || (point >= 0x20D0 && point <= 0x20FF) ||
         (point >= 0xFE00 && point <= 0xFE0F) || (point >= 0xFE20 && point <= 0xFE2F) ||
         (point >= 0x1F3FB && point <= 0x1F3FF) || (point >= 0xE0020 && point <= 0xE007F) ||
         (point >= 0xE0100 && point <= 0xE01EF) || point == 0x200C || point == 0x200D;
}

/// The first `count` user-perceived characters of `text`: a base code point with the combining
/// marks, variation selectors, emoji modifiers and joined code points that follow it. Close
/// enough to full grapheme segmentation for consent strings, which are plain "0"/"1" text.
std::vector<std::string_view> firstCharacters(std::string_view text, size_t count) {
  std::vector<std::string_view> characters;
  size_t i = 0;
  while (i < text.size() && characters.size() < count) {
    const size_t start = i;
    auto [point, length] = decodeAt(text, i);
    i += length;
    bool joined = point == 0x200D;
    while (i < text.size()) {
      if (point == '\r' && text[i] == '\n') {
        ++i;
        break;
      }
      const auto [next, nextLength] = decodeAt(text, i);
      if (!joined && !extendsCharacter(next)) break;
      joined = next == 0x200D;
      point = next;
      i += nextLength;
    }
    characters.push_back(text.substr(start, i - start));
  }
  return characters;
}

bool isValidCheckURL(const std::string& endpoint) {
  CURLU* url = curl_url();
  if (url == nullptr) return false;
  bool valid = false;
  if (curl_url_set(url, CURLUPART_URL, endpoint.c_str(), 0) == CURLUE_OK) {
    char* scheme = nullptr;
    if (curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK && scheme != nullptr) {
      const std::string_view name(scheme);
      valid = name == "https" || name == "http";
    }
    curl_free(scheme);
  }
  curl_url_cleanup(url);
  return valid;
}

}  // namespace

/// The two results; shared with pending checks so their completions never outlive it.
struct GdprConsent::State {
  std::atomic<int8_t> subjectToGdprConsent{kAbsent};
  std::atomic<int8_t> hasGdprConsent{kAbsent};
};

/// Everything the decision needs; immutable apart from `state`. Held weakly by the key
/// observer, so a change of the keys racing with destruction finds it gone or alive, never
/// half-destroyed.
struct GdprConsent::Core {
  UserDefaults& defaults;
  const HTTPGet httpGet;
  const CheckEndpoint endpoint;
  const std::shared_ptr<State> state = std::make_shared<State>();

  void determine();
  void remoteCheck();
  void forgetAndDetermine();
  static void handleAnswer(State& state, const std::optional<std::string>& data,
                           const std::optional<HTTPError>& error);
};

void GdprConsent::Core::determine() {
  if (const auto subject = defaults.subjectToGdpr()) {
    state->subjectToGdprConsent.store(encode(*subject != "0"));
  }
  if (state->subjectToGdprConsent.load() == 0) {
    // Someone not subject to GDPR needs no consent.
    state->hasGdprConsent.store(1);
    return;
  }

  const auto vendors = defaults.parsedVendorConsents();
  const auto purposes = defaults.parsedPurposeConsents();
  if (vendors && purposes) {
    const auto purpose = firstCharacters(*purposes, 1);
    const auto vendor = firstCharacters(*vendors, kVendorIndex + 1);
    if (!purpose.empty() && vendor.size() > kVendorIndex) {
      const bool granted = purpose.front() == "1" && vendor[kVendorIndex] == "1";
      state->hasGdprConsent.store(encode(granted));
      return;
    }
  }

  Debug(VantrelLogLevel::error,
        std::string("Unable to determine GDPR consent from stored Vendor and Purpose Strings in "
                    "User Defaults.  Check values for UserDefaults ") +
            kParsedPurposeConsentsKey + " and " + kParsedVendorConsentsKey +
            ". They may not have been set or are too short. Will attempt remote check.");
  remoteCheck();
}

void GdprConsent::Core::remoteCheck() {
  // Validated here rather than left to the transport, so a bad endpoint logs its own line and
  // never turns into a request.
  const std::string url = endpoint ? endpoint() : std::string();
  if (!isValidCheckURL(url)) {
    Debug(VantrelLogLevel::error, "Unable to check gdpr. Invalid Check URL");
    return;
  }
  auto completion = [state = state](const std::optional<std::string>& data,
                                    const std::optional<HTTPURLResponse>& response,
                                    const std::optional<HTTPError>& error) {
    if (response && (response->statusCode < 200 || response->statusCode > 299)) {
      Debug(VantrelLogLevel::error, "GDPR requirement check answered with HTTP status " +
                                        std::to_string(response->statusCode));
    }
    handleAnswer(*state, data, error);
  };
  try {
    httpGet(url, std::move(completion));
  } catch (const std::exception& e) {
    // A transport that cannot even start the request is reported like a failed one.
    handleAnswer(*state, std::nullopt, HTTPError{"VNTRTagManager", 0, e.what()});
  }
}

void GdprConsent::Core::handleAnswer(State& state, const std::optional<std::string>& data,
                                     const std::optional<HTTPError>& error) {
  if (error) {
    Debug(VantrelLogLevel::error,
          "Error recieved during GDPR requirement check.:" + error->localizedDescription);
  }
  if (!data) {
    Debug(VantrelLogLevel::error, "No data received during GDPR requirement check.");
  } else {
    const auto answer = nlohmann::json::parse(*data, nullptr, /*allow_exceptions=*/false);
    // Like the platform's JSON reader, only an object or an array counts as a JSON document.
    if (answer.is_discarded() || !(answer.is_object() || answer.is_array())) {
      Debug(VantrelLogLevel::error, "GDPR response is not JSON.");
    } else if (!answer.is_object() ||
               std::any_of(answer.begin(), answer.end(),
                           [](const nlohmann::json& value) { return !value.is_boolean(); })) {
      Debug(VantrelLogLevel::error, "Badly formatted reponse for GDPR check.");
    } else if (const auto found = answer.find("needs_consent");
               found != answer.end() && !found->get<bool>()) {
      state.hasGdprConsent.store(1);
      Debug(VantrelLogLevel::verbose, "GDPR consent not required.");
    }
  }
  Debug(VantrelLogLevel::verbose, std::string("hasGdprConsent determined to be:") +
                                      (state.hasGdprConsent.load() == 1 ? "true" : "false"));
}

void GdprConsent::Core::forgetAndDetermine() {
  state->subjectToGdprConsent.store(kAbsent);
  state->hasGdprConsent.store(kAbsent);
  determine();
}

GdprConsent::GdprConsent(UserDefaults& defaults, HTTPGet httpGet, CheckEndpoint checkEndpoint)
    : core_(std::make_shared<Core>(Core{defaults, std::move(httpGet), std::move(checkEndpoint)})) {}

GdprConsent::GdprConsent(UserDefaults& defaults, HTTPGet httpGet, std::string checkEndpoint)
    : GdprConsent(defaults, std::move(httpGet), [url = std::move(checkEndpoint)] { return url; }) {}

GdprConsent::~GdprConsent() {
  if (const uint64_t token = observerToken_.load(); token != 0) {
    core_->defaults.removeObserver(token);
  }
}

void GdprConsent::start() {
  core_->determine();
  std::weak_ptr<Core> weak = core_;
  observerToken_.store(core_->defaults.addObserver(
      {kSubjectToGdprKey, kParsedPurposeConsentsKey, kParsedVendorConsentsKey},
      [weak](const std::string&) {
        if (const auto core = weak.lock()) core->forgetAndDetermine();
      }));
}

std::optional<bool> GdprConsent::subjectToGdprConsentValue() const {
  return decode(core_->state->subjectToGdprConsent.load());
}

std::optional<bool> GdprConsent::hasGdprConsentValue() const {
  return decode(core_->state->hasGdprConsent.load());
}

bool GdprConsent::subjectToGdprConsent() const {
  return subjectToGdprConsentValue().value_or(true);
}

bool GdprConsent::hasGdprConsent() const { return hasGdprConsentValue().value_or(false); }

void GdprConsent::determineGDPRConsent() { core_->determine(); }

void GdprConsent::remoteRetrieveConsent() { core_->remoteCheck(); }

void GdprConsent::observeValueForKeyPath(const std::string& /*key*/) {
  core_->forgetAndDetermine();
}

}  // namespace vntr
