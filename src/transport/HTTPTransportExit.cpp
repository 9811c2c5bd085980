#include <curl/curl.h>
#include <dlfcn.h>
#include <pthread.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "transport/HTTPTransportThread.hpp"

namespace vntr::detail {
namespace {

// How long exit waits for a transport thread to leave libcurl; only a completion that blocks
// (a host delegate waiting on something) could make it wait that long.
constexpr auto kExitStopTimeout = std::chrono::seconds(2);

/// The transports whose threads may run at exit. Never destroyed: exit reads it.
struct TransportsAtExit {
  std::mutex mutex;
  std::vector<std::weak_ptr<StoppedAtExit>> live;  // guarded by mutex
};

TransportsAtExit& transportsAtExit() {
  static auto* const transports = new TransportsAtExit;  // never destroyed
  return *transports;
}

void stopTransportsAtExit() noexcept {
  std::vector<std::shared_ptr<StoppedAtExit>> live;
  try {
    auto& transports = transportsAtExit();
    std::scoped_lock lock(transports.mutex);
    for (const auto& weak : transports.live) {
      if (auto transport = weak.lock()) live.push_back(std::move(transport));
    }
  } catch (...) {
    return;  // out of memory while exiting: nothing better to do than to let exit go on
  }
  const auto deadline = std::chrono::steady_clock::now() + kExitStopTimeout;
  for (const auto& transport : live) transport->stopForExit(deadline);
}

// OpenSSL frees its tables from an exit handler of its own, and a transport thread still inside a
// handshake when the process exits reads them (a use after free, seen by ThreadSanitizer). Asked
// before anything initialises it, OpenSSL registers no such handler at all (the kernel takes the
// memory back at exit anyway); initialised already by the host, it has registered it, and
// stopTransportsAtExit, registered after it, runs first. Nothing to do when libcurl uses another
// TLS library (none of them frees anything in an exit handler).
void holdTlsExitHandler() {
  constexpr uint64_t kOpenSSLInitNoAtExit = 0x00080000;  // OPENSSL_INIT_NO_ATEXIT
  for (const char* name : {"libcrypto.so.3", "libcrypto.so.1.1"}) {
    void* library = ::dlopen(name, RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) continue;
    using InitCrypto = int (*)(uint64_t options, const void* settings);
    if (auto* init = reinterpret_cast<InitCrypto>(::dlsym(library, "OPENSSL_init_crypto"))) {
      init(kOpenSSLInitNoAtExit, nullptr);
    }
    ::dlclose(library);
    return;
  }
}

// Trivially destructible, so it is safe at namespace scope in a library that is never torn down.
std::once_flag curlGlobalInitFlag;

}  // namespace

// Once, at the first client and so before any transport thread exists. A transport thread
// inside libcurl (starting it, or in a handshake or a random-number call) when the TLS library's
// exit handler frees its tables crashes the exiting process. Exit handlers run in reverse order
// of registration: stopTransportsAtExit, registered after the TLS library's, stops our threads
// before that handler runs, and waits for one that is still initialising libcurl.
void registerExitHandlers() {
  static std::once_flag registered;
  std::call_once(registered, [] {
    holdTlsExitHandler();
    std::atexit(stopTransportsAtExit);
    // A forked child never uses its parent's transports (their threads stayed behind): exit
    // there must not wait for them. Held across the fork, the mutex is whole in the child.
    pthread_atfork([] { transportsAtExit().mutex.lock(); },
                   [] { transportsAtExit().mutex.unlock(); },
                   [] {
                     auto& transports = transportsAtExit();
                     transports.live.clear();
                     transports.mutex.unlock();
                   });
  });
}

void stopAtExit(std::weak_ptr<StoppedAtExit> transport) {
  auto& transports = transportsAtExit();
  std::scoped_lock lock(transports.mutex);
  std::erase_if(transports.live, [](const auto& weak) { return weak.expired(); });
  transports.live.push_back(std::move(transport));
}

void initializeCurlOnce() {
  // Never paired with curl_global_cleanup: the host may use libcurl too, and our thread may still
  // run while the process exits.
  std::call_once(curlGlobalInitFlag, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace vntr::detail
