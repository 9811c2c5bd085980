#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vntr::sandbox {

/// Misbehaviour the sandbox puts into its answers to "/tags", so clients can be tested against a
/// server that fails. The default value is a well-behaved server.
struct Faults {
  int statusCode = 200;  ///< HTTP status of the answers (the body is the usual one).
  /// Share (0..1) of syncEvent ids left out of the answer. Decided by a hash of the id and how
  /// often it arrived, so runs are reproducible, a resent id gets a fresh decision, and 1.0
  /// leaves every syncEvent unanswered. getEvents is always answered.
  double dropShare = 0.0;
  bool errorEntries = false;   ///< syncEvent entries carry "error" {code 500} instead of "result".
  bool malformedBody = false;  ///< The body is cut in half, so it is not JSON.
  bool emptyBody = false;      ///< The answer has no body at all.
  int delayMs = 0;             ///< Wait this long before answering (cut short by stop()).
  bool closeConnection = false;  ///< Read the request, then close the connection without answer.
  int retryAfterSeconds = 0;     ///< Send "Retry-After" with this many seconds (0: no header).
};

struct SandboxConfig {
  std::string host = "127.0.0.1";
  int port = 0;                    ///< 0: the OS picks a free port.
  int64_t batchIntervalMs = 2000;  ///< "batchInterval" of every getEvents result.
  /// Array of {"eventName", "ignoreBatch"} records sent as "qualifiedEvents" together with
  /// "expireEvents"; both are left out of getEvents results when unset.
  std::optional<nlohmann::json> qualifiedEvents;
  int64_t expireEventsMs = 3600000;
  bool needsConsent = false;  ///< Answer of the consent check.
  Faults faults;
};

struct Stats {
  int64_t batches = 0;        ///< Accepted POSTs to "/tags".
  int64_t requests = 0;       ///< Elements of all accepted batches.
  int64_t events = 0;         ///< Distinct syncEvent ids.
  int64_t duplicates = 0;     ///< syncEvent arrivals whose id had been seen before.
  int64_t getEvents = 0;      ///< getEvents requests.
  int64_t answered = 0;       ///< syncEvent entries (result or error) put into delivered answers.
  int64_t bytesReceived = 0;  ///< Body bytes of accepted batches.
  int64_t rejected = 0;       ///< POSTs to "/tags" refused with 400 (body not a JSON array).
  int64_t consentChecks = 0;  ///< GETs of the consent check.
};

nlohmann::json toJSON(const Stats& stats);
nlohmann::json toJSON(const Faults& faults);
/// Applies the members of `patch` that name Faults fields. Checks every member first: on a wrong
/// type or value returns the reason and leaves `faults` unchanged; on success returns nothing.
std::optional<std::string> applyFaults(const nlohmann::json& patch, Faults& faults);

/// A local tag server speaking the batch protocol on "/tags" and the consent check on
/// "/gdpr/check/json/current", recording what it receives, with a page at "/" and control
/// endpoints under "/api/". It serves on its own thread pool; every member function may be
/// called from any thread. The recorded state lives in memory and survives stop()/start().
class SandboxServer {
 public:
  explicit SandboxServer(SandboxConfig config = {});
  ~SandboxServer();  ///< Stops the server.
  SandboxServer(const SandboxServer&) = delete;
  SandboxServer& operator=(const SandboxServer&) = delete;

  /// Binds and starts serving; false when the address cannot be bound or it already runs. After
  /// stop() it starts again on the same port, so URLs handed out stay valid.
  bool start();
  /// Stops serving and waits for answers in progress (pending delays end at once).
  void stop();
  bool running() const;

  int port() const;                ///< The bound port (0 before the first start()).
  std::string baseURL() const;     ///< "http://<host>:<port>"
  std::string tagsURL() const;     ///< baseURL() + "/tags"
  std::string consentURL() const;  ///< baseURL() + "/gdpr/check/json/current"

  Stats stats() const;
  bool received(const std::string& id) const;  ///< A syncEvent with this id arrived.
  int64_t timesReceived(const std::string& id) const;
  /// The distinct syncEvent requests in arrival order (the oldest are dropped past 200,000).
  std::vector<nlohmann::json> events() const;
  /// The most recent batches (up to 200), oldest first, as served by "/api/batches".
  nlohmann::json batches() const;
  /// Forgets everything received and zeroes the counters; configuration and faults stay.
  void reset();

  void setFaults(const Faults& faults);
  Faults faults() const;
  void setBatchInterval(int64_t ms);
  void setQualifiedEvents(std::optional<nlohmann::json> records, int64_t expireMs);
  void setNeedsConsent(bool needsConsent);
  SandboxConfig config() const;

  /// Called with each recorded batch (the form of one "/api/batches" element) on a server
  /// thread, without locks held; it must not call stop().
  void setBatchObserver(std::function<void(const nlohmann::json& batch)> observer);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The page served at "/" and the fragment of it that the page reloads every second; every text
/// from `stats`, `config` and `batches` is HTML-escaped.
std::string renderPage(const nlohmann::json& stats, const nlohmann::json& config,
                       const nlohmann::json& batches);
std::string renderFragment(const nlohmann::json& stats, const nlohmann::json& config,
                           const nlohmann::json& batches);
std::string escapeHTML(const std::string& text);

}  // namespace vntr::sandbox
