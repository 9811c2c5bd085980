#include "core/VNTRDebug.hpp"

#include <cxxabi.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <mutex>
#include <utility>

#include "core/HostCallbacks.hpp"
#include "core/MainQueue.hpp"

namespace vntr {

namespace {

// Hands one message to the host's log callback; false when host callbacks are no longer called
// (shut down, or the process is exiting).
bool callLogCallback(VantrelLogLevel level, const std::vector<std::string>& strings) {
  try {
    return detail::hostCallbacks().log.invoke(
        [&](const VNTRPreferences::LoggingCallback& callback) { callback(level, strings); });
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return true;  // a host callback that throws loses its own message; the queue carries on
  }
}

// Messages waiting for the main queue, oldest first. One task delivers all that wait, so a
// burst of messages (one per stored event at verbose level) costs the main queue one wake-up
// and no closure each.
struct WaitingMessages {
  std::mutex mutex;
  std::vector<std::pair<VantrelLogLevel, std::vector<std::string>>> messages;  // guarded
  bool deliveryPosted = false;                                                 // guarded
};

WaitingMessages& waitingMessages() {
  static auto* const instance = [] {
    auto* waiting = new WaitingMessages;  // never destroyed: threads outlive exit
    // A forked child delivers its own messages on its own main queue; the parent delivers
    // those that waited at the fork.
    pthread_atfork([] { waitingMessages().mutex.lock(); }, [] { waitingMessages().mutex.unlock(); },
                   [] {
                     auto& self = waitingMessages();
                     self.messages.clear();
                     self.deliveryPosted = false;
                     self.mutex.unlock();
                   });
    return waiting;
  }();
  return *instance;
}

void deliverWaitingMessages() {
  auto& waiting = waitingMessages();
  std::vector<std::pair<VantrelLogLevel, std::vector<std::string>>> messages;
  {
    std::scoped_lock lock(waiting.mutex);
    messages.swap(waiting.messages);
    waiting.deliveryPosted = false;
  }
  for (const auto& [level, strings] : messages) {
    if (!callLogCallback(level, strings)) VNTRLog(level, strings);
  }
}

}  // namespace

void detail::deliverLog(VantrelLogLevel level, std::vector<std::string> strings) {
  // Once host callbacks have stopped the main queue may be gone too: the line goes to stderr
  // at once, so a refused call still says why.
  if (!hostCallbacks().gate->open()) {
    VNTRLog(level, strings);
    return;
  }
  auto& waiting = waitingMessages();
  {
    std::scoped_lock lock(waiting.mutex);
    waiting.messages.emplace_back(level, std::move(strings));
    if (std::exchange(waiting.deliveryPosted, true)) return;
  }
  mainQueue().post(deliverWaitingMessages);
}

std::string formatLogLine(VantrelLogLevel level, const std::vector<std::string>& strings) {
  std::string line = "[";
  line += level.description();
  line += "] ";
  for (size_t i = 0; i < strings.size(); ++i) {
    if (i > 0) line += ',';
    line += strings[i];
  }
  return line;
}

namespace {

// "2026-11-22 03:10:00.123 name[pid] ", like the platform's system logger.
std::string linePrefix() {
  const auto now = std::chrono::system_clock::now();
  const auto seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  const size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string prefix(stamp, n);
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03d ", static_cast<int>(millis));
  prefix += fraction;
  prefix += program_invocation_short_name;
  prefix += '[';
  prefix += std::to_string(getpid());
  prefix += "] ";
  return prefix;
}

}  // namespace

void VNTRLog(VantrelLogLevel log_level, const std::vector<std::string>& strings) {
  if (VNTRPreferences::sharedPreferences().logLevel().rawValue() < log_level.rawValue()) return;
  // The message is written as data, never used as a format string.
  std::string line = linePrefix() + formatLogLine(log_level, strings) + '\n';
  const char* data = line.data();
  size_t left = line.size();
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    left -= static_cast<size_t>(written);
  }
}

}  // namespace vntr
