#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vntr::cli {

/// Exit statuses shared by every command.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  ///< The command ran and the outcome is not what was asked for.
constexpr int kExitUsage = 2;   ///< Wrong arguments: one line on stderr, nothing done.

struct DemoOptions {
  int events = 2000;
  int threads = 1;
  int batchIntervalMs = 100;
  bool verbose = false;
};

/// Runs the library against an in-process sandbox server on 127.0.0.1 and prints a summary.
int runDemo(const DemoOptions& options);

struct FireOptions {
  std::vector<std::string> events;
  std::string group;
  std::string data = "{}";
  std::string server;  ///< Empty: the library's default server URL.
  double waitSeconds = 10;
  std::string dir;       ///< Documents directory; empty: the process default.
  std::string bundle;    ///< Directory holding VantrelTagManagerSDKInfo.plist.
  std::string siteId;    ///< Written to a temporary bundle instead of `bundle`.
  std::string defaults;  ///< User defaults file; empty: the process default.
  bool notSubjectToGdpr = false;
  bool assumeOnline = false;
  bool backoff = false;
  bool verbose = false;
};

/// Fires one call through the public entry point and waits until the queue is empty.
int runFire(const FireOptions& options);

struct QueueOptions {
  std::string dir;  ///< Documents directory; empty: the process default.
  bool json = false;
};

/// Reports what the request queue in a documents directory holds, reading it without changing it.
int runQueue(const QueueOptions& options);

}  // namespace vntr::cli
