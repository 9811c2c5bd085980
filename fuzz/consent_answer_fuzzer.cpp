// The consent-check answer: the body the check endpoint returns, handed to the consent decision
// through a transport that answers at once. The user defaults hold no consent strings, so every
// decision goes to the check. Consent may only come out granted for an object of booleans whose
// "needs_consent" is false.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vntr/UserDefaults.hpp>

#include "FuzzSupport.hpp"
#include "facade/GdprConsent.hpp"

namespace {

constexpr const char* kEndpoint = "http://127.0.0.1:9/gdpr/check/json/current";

vntr::UserDefaults& defaults() {
  static auto* const instance =
      new vntr::UserDefaults(vntr::fuzz::scratchDirectory() / "UserDefaults.json");
  return *instance;
}

// What the answer must look like for consent to be granted.
bool grants(const std::string& body) {
  const auto answer = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (!answer.is_object()) return false;
  for (const auto& value : answer) {
    if (!value.is_boolean()) return false;
  }
  const auto found = answer.find("needs_consent");
  return found != answer.end() && !found->get<bool>();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  defaults();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(vntr::fuzz::asText(data, size));
  int requests = 0;
  vntr::GdprConsent consent(
      defaults(),
      [&](const std::string& url, const vntr::HTTPCompletion& completion) {
        ++requests;
        completion(body, vntr::HTTPURLResponse{url, 200}, std::nullopt);
      },
      kEndpoint);
  consent.determineGDPRConsent();

  if (requests != 1) {
    std::fprintf(stderr, "consent answer: %d checks instead of 1\n", requests);
    std::abort();
  }
  const bool granted = consent.hasGdprConsentValue() == true;
  if (granted != grants(body)) {
    std::fprintf(stderr, "consent answer: granted=%d for a body that %s\n", granted,
                 granted ? "does not grant" : "grants");
    std::abort();
  }
  vntr::fuzz::drainMainQueue();
  return 0;
}
