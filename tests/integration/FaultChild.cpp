// A host application for the fault tests. It uses the library through its public API, as an app
// does, and its parent test kills it or lets it end at moments of its choosing.
//
//   vntr_fault_child run <dataDir> <serverURL> <firstSeq> <reportFile> <maxEvents> <seconds>
//       Fires up to maxEvents events with eventData {"seq": firstSeq + n, ...} from one thread
//       and keeps asking for batches. After each eventCreated it appends the running count to
//       reportFile, so the parent knows which requests were saved (creation follows the order
//       of the calls). Ends by itself once maxEvents (> 0) were created and answered, or after
//       `seconds`.
//   vntr_fault_child exit <dataDir> <serverURL> <firstSeq> <reportFile> <return|exit>
//                         <start|inflight|timer|random> <seed>
//       Like run, but the events are fired by a detached host thread that never stops, and the
//       main thread returns from main (or calls exit) once a batch is in flight, once the batch
//       timer is armed, or at a random moment after the first request was saved.
//   vntr_fault_child fork <dataDir> <serverURL> <firstSeq> <reportFile> <count>
//       Fires `count` events and forks at once, while their builds are still queued; then parent
//       and child each fire `count` more (the child numbers its events from firstSeq + count,
//       the parent from firstSeq + 2 * count) and wait until the server has answered their own.
//       Exits 0 when both sides did; the parent waits for the child.
//   vntr_fault_child fire <dataDir> <serverURL> <firstSeq> <reportFile> <count> <return|exit|flush>
//       Fires `count` events with eventData {"seq": firstSeq + n} from the main thread, then
//       returns from main, calls exit, or calls flush, shutdown and the C API after shutdown,
//       printing each result as "<call> <result>" (the first eventCreated also calls flush from
//       inside the delegate). The network is reachable only for "flush". Writes "main returned" to
//       reportFile as main ends, so the parent sees any callback that came after it.
//
// dataDir holds what a host has (the same layout as the tests' HostLayout): "bundle" with the
// site ID, "documents" for the store, "config/defaults.json" for the user defaults.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vntr/vntr.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "Runtime.hpp"
#include "store/EventDataManager.hpp"
#include "transport/VNTRRequester.hpp"
#include "transport/VNTRTimer.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vntr::VNTRStatistic;
using vntr::VNTRTagManager;

constexpr uint32_t kReachable = 0x2;
// The exit host's thread fires about as fast as the store builds requests; sanitized builds build
// several times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kPauseMicros = 5000;
#else
constexpr uint32_t kPauseMicros = 1000;
#endif
// A host killed again and again leaves requests behind faster than batches (newest first) send
// them. It stops firing while its store holds this many, so the store never reaches the
// start-up trim, which may legitimately drop requests.
constexpr int64_t kMaxBacklog = 1500;

/// Counts the statistics; appends the running eventCreated count to the report file. Leaked:
/// library threads call it while the process exits.
class Reporter final : public vntr::VNTRTagManagerDelegate {
 public:
  void notifyForStatistic(int64_t statistic, int64_t adjustment) override {
    if (statistic < 0 || statistic >= static_cast<int64_t>(counts_.size())) return;
    const int64_t total =
        counts_[static_cast<size_t>(statistic)].fetch_add(adjustment) + adjustment;
    // Reported on the store queue after the commit that holds the request, in creation order.
    if (statistic == VNTRStatistic::eventCreated && reportFd >= 0) {
      const std::string line = std::to_string(total) + "\n";
      (void)!::write(reportFd, line.data(), line.size());
    }
    if (statistic == VNTRStatistic::eventCreated && onCreated) onCreated();
  }
  int64_t operator[](VNTRStatistic statistic) const {
    return counts_[static_cast<size_t>(statistic.rawValue())].load();
  }
  int reportFd = -1;              // set before the delegate is installed
  void (*onCreated)() = nullptr;  // likewise

 private:
  std::array<std::atomic<int64_t>, 10> counts_{};
};

Reporter& reporter() {
  static auto* const instance = new Reporter;  // never destroyed
  return *instance;
}

void setUpHost(const fs::path& dataDir, const std::string& serverURL, const fs::path& report) {
  VNTRTagManager::setMainBundlePath((dataDir / "bundle").string());
  VNTRTagManager::setDocumentsDirectory((dataDir / "documents").string());
  VNTRTagManager::setUserDefaultsPath((dataDir / "config" / "defaults.json").string());
  VNTRTagManager::useHostReachability(kReachable);
  auto& preferences = vntr::VNTRPreferences::sharedPreferences();
  preferences.setServerURL(serverURL);
  preferences.setRequestTimeout(5);
  reporter().reportFd = ::open(report.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  preferences.setTagManagerDelegate(std::shared_ptr<Reporter>(&reporter(), [](Reporter*) {}));
  // The app's consent component: this user is not subject to GDPR.
  vntr::UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");
}

void fireOne(int64_t seq, std::mt19937& random) {
  VNTRTagManager::fireEvents({"fault"}, "fault",
                             {{"seq", seq}, {"pad", std::string(random() % 64, 'p')}});
}

int64_t backlog() {
  return reporter()[VNTRStatistic::eventCreated] - reporter()[VNTRStatistic::eventResultProcessed];
}

// Read through the library's internals; the host's public API has no such question.
int64_t storedRequests() {
  auto& store = vntr::Runtime::shared().store();
  int64_t count = 0;
  store.performAndWait([&] { count = store.count(); });
  return count;
}

bool reached(const std::string& point);

int run(int64_t firstSeq, char** more) {
  const int64_t maxEvents = std::stoll(more[0]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(std::stoi(more[1]));
  std::mt19937 random(static_cast<uint32_t>(firstSeq));
  int64_t fired = 0;
  bool full = false;
  while (std::chrono::steady_clock::now() < deadline) {
    if (fired % 10 == 0) full = storedRequests() >= kMaxBacklog;
    if (fired < maxEvents && !full) {
      fireOne(firstSeq + fired++, random);
      // A reachable report asks for a batch at once: batches follow each other closely.
      if (fired % 25 == 0) VNTRTagManager::updateReachabilityFlags(kReachable);
      if (fired % 10 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
      continue;
    }
    // Alone, a host has sent its requests when each was answered; sharing the queue with
    // other processes, some of its requests go out in theirs, and the queue runs empty. It
    // leaves with no batch of its own in flight (another process's requests may be in it, and
    // a reply that never arrives sends them again).
    if (maxEvents > 0 && fired == maxEvents &&
        reporter()[VNTRStatistic::eventCreated] == maxEvents &&
        (backlog() == 0 || storedRequests() == 0) && !reached("inflight")) {
      return 0;
    }
    VNTRTagManager::updateReachabilityFlags(kReachable);
    std::this_thread::sleep_for(5ms);
  }
  return 0;
}

// Polls `condition` for at most 20 s.
bool waitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(200us);
  }
  return true;
}

bool reached(const std::string& point) {
  const auto& r = reporter();
  if (point == "inflight") {
    return r[VNTRStatistic::batchRequestSent] >
           r[VNTRStatistic::responseReceived] + r[VNTRStatistic::requestFailed];
  }
  // "timer"
  auto& requester = vntr::Runtime::shared().requester();
  return requester.batchTimer()->isValid() && !requester.isRequesting.load();
}

int exitWhile(int64_t firstSeq, char** more) {
  const std::string how = more[0];
  const std::string point = more[1];
  const auto seed = static_cast<uint32_t>(std::stoul(more[2]));
  // Only the fire-now rule starts batches early; left alone, the first batch timer stays armed
  // for its full interval.
  const bool askForBatches = point != "timer";
  std::thread([firstSeq, seed, askForBatches] {
    std::mt19937 random(seed);
    for (int64_t n = 0;; ++n) {
      fireOne(firstSeq + n, random);
      if (askForBatches && n % 25 == 24) VNTRTagManager::updateReachabilityFlags(kReachable);
      if (n % 5 == 4) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % kPauseMicros));
      }
    }
  }).detach();

  std::mt19937 random(seed ^ 0x9e3779b9u);
  bool arrived = false;
  if (point == "random" || point == "start") {
    // Counted from the first saved request: a process that ends while its first call is still
    // under way is another matter. "start" ends while the first batch starts the transport, whose
    // thread initialises libcurl and OpenSSL as exit begins.
    arrived = waitFor([] { return reporter()[VNTRStatistic::eventCreated] > 0; });
    const uint32_t spread = point == "start" ? 5000 : 150000;
    std::this_thread::sleep_for(std::chrono::microseconds(random() % spread));
  } else {
    arrived = waitFor([&] { return reached(point); });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
  }
  if (!arrived) {
    std::cerr << "vntr_fault_child: never reached " << point << "\n";
    return 3;
  }
  if (how == "exit") std::exit(0);
  return 0;
}

int forkHost(int64_t firstSeq, char** more) {
  const int64_t count = std::stoll(more[0]);
  std::mt19937 random(static_cast<uint32_t>(firstSeq));
  for (int64_t n = 0; n < count; ++n) fireOne(firstSeq + n, random);
  const pid_t child = ::fork();
  if (child < 0) return 4;
  // The child's counters start from the parent's at the fork. Both share the queue file, so
  // either may send the other's requests: each waits until its own are saved and the queue is
  // empty.
  const int64_t createdBefore = reporter()[VNTRStatistic::eventCreated];
  const int64_t first = firstSeq + (child == 0 ? count : 2 * count);
  for (int64_t n = 0; n < count; ++n) fireOne(first + n, random);
  const int64_t expected = child == 0 ? createdBefore + count : 2 * count;
  const bool sent = waitFor([&] {
    VNTRTagManager::updateReachabilityFlags(kReachable);
    return reporter()[VNTRStatistic::eventCreated] >= expected && storedRequests() == 0;
  });
  if (!sent) {
    std::cerr << "vntr_fault_child: " << (child == 0 ? "child" : "parent") << " created "
              << reporter()[VNTRStatistic::eventCreated] << " of " << expected << ", "
              << storedRequests() << " stored\n";
  }
  // Memory that only the parent's threads pointed at (their thread-local caches, the task they
  // ran) is unreachable in the child by nature; LeakSanitizer's check at exit would report it.
  // The queue is empty by now, so nothing is left for the exit hook either.
  if (child == 0) ::_exit(sent ? 0 : 5);
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return 6;
  if (!WIFEXITED(status)) return 7;
  return sent ? WEXITSTATUS(status) : 5;
}

// Runs in the delegate at the first eventCreated: a flush from inside a callback must not wait
// for (or deadlock on) the thread it runs on.
std::atomic<int> flushInCallback{-1};
std::atomic<int64_t> flushInCallbackMs{-1};

void flushFromCallback() {
  int expected = -1;
  if (!flushInCallback.compare_exchange_strong(expected, -2)) return;
  const auto started = std::chrono::steady_clock::now();
  const bool empty = VNTRTagManager::flush(10s);
  flushInCallbackMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - started)
                          .count();
  flushInCallback = empty ? 1 : 0;
}

int fire(int64_t firstSeq, char** more) {
  const int64_t count = std::stoll(more[0]);
  const std::string how = more[1];
  const bool reachable = how == "flush";
  VNTRTagManager::updateReachabilityFlags(reachable ? kReachable : 0);
  reporter().onCreated = reachable ? flushFromCallback : nullptr;
  for (int64_t n = 0; n < count; ++n) {
    VNTRTagManager::fireEvents({"fault"}, "fault", {{"seq", firstSeq + n}});
  }
  if (how == "flush") {
    std::cout << "flush " << VNTRTagManager::flush(20s) << "\n";
    std::cout << "callback-flush " << flushInCallback << " " << (flushInCallbackMs < 1000) << "\n";
    VNTRTagManager::fireEvents({"fault"}, "fault", {{"seq", firstSeq + count}});
    std::cout << "shutdown " << VNTRTagManager::shutdown(20s) << "\n";
    const char* events[] = {"fault"};
    std::cout << "vntr_fire_events " << vntr_fire_events(events, 1, "fault", nullptr) << "\n";
    std::cout << "vntr_flush " << vntr_flush(100) << "\n";
    std::cout << "vntr_shutdown " << vntr_shutdown(100) << "\n";
  }
  const std::string marker = "main returned\n";
  (void)!::write(reporter().reportFd, marker.data(), marker.size());
  if (how == "exit") std::exit(0);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, std::pair<int, int (*)(int64_t, char**)>> modes = {
      {"run", {2, run}}, {"exit", {3, exitWhile}}, {"fork", {1, forkHost}}, {"fire", {2, fire}}};
  const auto mode = modes.find(argc > 1 ? argv[1] : "");
  if (mode == modes.end() || argc != 6 + mode->second.first) {
    std::cerr << "usage: vntr_fault_child run|exit|fork|fire ... (see the source)\n";
    return 2;
  }
  setUpHost(argv[2], argv[3], argv[5]);
  return mode->second.second(std::stoll(argv[4]), argv + 6);
}
