// vntr fire: one call through the public entry point, against any tag server; vntr flush: what
// the queue holds now, sent at once.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "CliSupport.hpp"
#include "Commands.hpp"
#include "Runtime.hpp"
#include "core/MainQueue.hpp"
#include "platform/linux/Files.hpp"
#include "store/EventDataManager.hpp"
#include "transport/VNTRRequester.hpp"

namespace vntr::cli {

namespace {

using Clock = std::chrono::steady_clock;

int64_t queuedRequests() {
  auto& store = Runtime::shared().store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

// Log lines are delivered on the main queue; let them reach stderr before our own lines.
void flushLogLines() {
  mainQueue().performAndWait([] {});
  mainQueue().performAndWait([] {});
}

std::string joined(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

// The settings fire and flush share; they only work before the library's first use, which
// nothing in this process has made yet.
template <class Options>
void configureTransport(const Options& options) {
  if (!options.dir.empty()) VNTRTagManager::setDocumentsDirectory(options.dir);
  if (options.assumeOnline) VNTRTagManager::useHostReachability(VNTRReachability::kReachable);
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setLogLevel(options.verbose ? VantrelLogLevel::verbose : VantrelLogLevel::warning);
  if (!options.server.empty()) preferences.setServerURL(options.server);
}

std::optional<std::string> configureLibrary(const FireOptions& options,
                                            const std::filesystem::path& siteBundle) {
  if (!siteBundle.empty()) {
    if (auto error = writeSiteIdPlist(siteBundle, options.siteId)) return error;
    VNTRTagManager::setMainBundlePath(siteBundle.string());
  } else if (!options.bundle.empty()) {
    VNTRTagManager::setMainBundlePath(options.bundle);
  }
  if (!options.defaults.empty()) VNTRTagManager::setUserDefaultsPath(options.defaults);
  configureTransport(options);
  VNTRPreferences::sharedPreferences().setRetryBackoff(options.backoff);
  return std::nullopt;
}

// Waits until the queue is empty or `waitSeconds` have passed since `start`, then says which;
// the exit status.
int reportDelivery(Clock::time_point start, double waitSeconds, int64_t queued,
                   const CountingDelegate& delegate) {
  const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(waitSeconds));
  while (queued > 0 && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // polling the queue's size
    queued = queuedRequests();
  }
  flushLogLines();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  const auto batches = delegate.total(VNTRStatistic::batchRequestSent);
  const auto failed = delegate.total(VNTRStatistic::requestFailed);
  if (queued == 0) {
    std::printf("delivered: the queue is empty after %.1f s (%lld batch%s sent)\n", elapsed,
                static_cast<long long>(batches), batches == 1 ? "" : "es");
    return kExitOk;
  }
  std::printf(
      "not delivered: %lld request%s still queued after %.1f s (%lld batch%s sent, %lld "
      "failed); they go out with a later run\n",
      static_cast<long long>(queued), queued == 1 ? "" : "s", elapsed,
      static_cast<long long>(batches), batches == 1 ? "" : "es", static_cast<long long>(failed));
  return kExitFailed;
}

}  // namespace

int runFire(const FireOptions& options) {
  const auto data = nlohmann::json::parse(options.data, nullptr, false);
  if (data.is_discarded() || !data.is_object()) {
    std::fprintf(stderr, "vntr fire: --data must be a JSON object, got: %s\n",
                 options.data.c_str());
    return kExitUsage;
  }
  std::optional<TemporaryDirectory> siteBundle;
  if (!options.siteId.empty()) {
    siteBundle.emplace("vntr-fire");
    if (siteBundle->path().empty()) {
      std::fprintf(stderr, "vntr fire: cannot create a temporary directory\n");
      return kExitFailed;
    }
  }
  if (auto error = configureLibrary(options, siteBundle ? siteBundle->path() : "")) {
    std::fprintf(stderr, "vntr fire: %s\n", error->c_str());
    return kExitFailed;
  }
  auto delegate = std::make_shared<CountingDelegate>();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  if (options.notSubjectToGdpr) {
    UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");
  }

  const auto start = Clock::now();
  VNTRTagManager::fireEvents(options.events, options.group, data);
  // The request is built and saved on the store queue; its count waits for that work.
  int64_t queued = queuedRequests();
  flushLogLines();
  const auto file = joinPath(Runtime::shared().paths().documentsDirectory, "requests_Data.sqlite");
  if (delegate->total(VNTRStatistic::eventCreated) == 0) {
    std::printf("not stored: the library refused the call (the log line above says why)\n");
    return kExitFailed;
  }
  std::printf("stored: %s (group %s); %lld request%s queued in %s\n",
              joined(options.events).c_str(), options.group.c_str(), static_cast<long long>(queued),
              queued == 1 ? "" : "s", file.c_str());
  std::printf("sending to %s\n", VNTRPreferences::sharedPreferences().serverURL().c_str());
  std::fflush(stdout);

  return reportDelivery(start, options.waitSeconds, queued, *delegate);
}

int runFlush(const FlushOptions& options) {
  configureTransport(options);
  auto delegate = std::make_shared<CountingDelegate>();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  const auto start = Clock::now();
  const int64_t queued = queuedRequests();  // opens the queue (and trims it, as every start does)
  const auto file = joinPath(Runtime::shared().paths().documentsDirectory, "requests_Data.sqlite");
  flushLogLines();
  if (queued == 0) {
    std::printf("nothing to send: the queue in %s is empty\n", file.c_str());
    return kExitOk;
  }
  std::printf("sending %lld queued request%s from %s to %s\n", static_cast<long long>(queued),
              queued == 1 ? "" : "s", file.c_str(),
              VNTRPreferences::sharedPreferences().serverURL().c_str());
  std::fflush(stdout);
  // A batch at once, then the server's pace, held back while the network is unreachable: what
  // any host's flush does.
  VNTRTagManager::flush(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(options.waitSeconds)));
  return reportDelivery(start, options.waitSeconds, queued, *delegate);
}

}  // namespace vntr::cli
