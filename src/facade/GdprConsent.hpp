#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vntr/UserDefaults.hpp>

#include "transport/HTTPClientProtocol.hpp"

namespace vntr {

/// Fetches `url` with a plain GET (no cookies, no cache) and calls `completion` exactly once,
/// on any thread. `HTTPClient::get` in the library; a fake in tests.
using HTTPGet = std::function<void(const std::string& url, HTTPCompletion completion)>;

/// The GDPR consent decision of the tag manager: reads the IAB consent strings from the user
/// defaults, decides from purpose 1 and vendor 24, asks the consent-check endpoint when the
/// strings are missing or too short, and decides again whenever one of the three keys changes.
///
/// Threads: `determineGDPRConsent` runs on the thread that calls `start` and, for changes of the
/// keys, on the thread that wrote them; the check's answer arrives on the transport's thread.
/// The two results are lone atomics (tri-states), read without locks from any thread; a stale
/// read is tolerated by intake. The state a pending check writes is shared with its completion,
/// so the completion may safely run after this object is gone.
class GdprConsent {
 public:
  static constexpr const char* kDefaultCheckEndpoint =
      "https://tags.vantrel.com/gdpr/check/json/current";

  /// Gives the consent-check URL (path "/gdpr/check/json/current") when a check starts, so a
  /// host that sets its server after creating us is still asked, never another host.
  using CheckEndpoint = std::function<std::string()>;

  /// `defaults` must outlive this object.
  GdprConsent(UserDefaults& defaults, HTTPGet httpGet, CheckEndpoint checkEndpoint);
  GdprConsent(UserDefaults& defaults, HTTPGet httpGet, std::string checkEndpoint);
  /// Stops observing the keys. A check in flight still completes (and changes nothing visible).
  ~GdprConsent();
  GdprConsent(const GdprConsent&) = delete;
  GdprConsent& operator=(const GdprConsent&) = delete;

  /// Decides once, then observes "IABConsent_SubjectToGDPR", "IABConsent_ParsedPurposeConsents"
  /// and "IABConsent_ParsedVendorConsents", in that order. Call once.
  void start();

  /// The raw fields: nothing while undetermined.
  std::optional<bool> subjectToGdprConsentValue() const;
  std::optional<bool> hasGdprConsentValue() const;
  /// Undetermined reads as true.
  bool subjectToGdprConsent() const;
  /// Undetermined reads as false.
  bool hasGdprConsent() const;

  /// Decides from the stored strings, or logs why it cannot and starts the remote check.
  void determineGDPRConsent();
  /// Starts the remote check. The URL is validated here (it must parse and be http or https),
  /// so an invalid endpoint logs "Unable to check gdpr. Invalid Check URL" without reaching
  /// the transport. Never retried.
  void remoteRetrieveConsent();
  /// A change of an observed key (which one does not matter): forget both results and decide
  /// again.
  void observeValueForKeyPath(const std::string& key);

 private:
  struct State;
  struct Core;
  std::shared_ptr<Core> core_;              // shared with the key observer (weakly)
  std::atomic<uint64_t> observerToken_{0};  // 0 until `start`
};

}  // namespace vntr
