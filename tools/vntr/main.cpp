// vntr: the library's command line.
#include <vntr/vntr.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <string>

#include "Commands.hpp"

namespace {

using namespace vntr::cli;

const CLI::Validator kHttpURL(
    [](const std::string& url) -> std::string {
      if (url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) return {};
      return "expected an http:// or https:// URL, got: " + url;
    },
    "URL");

CLI::App* addDemo(CLI::App& app, DemoOptions& o) {
  auto* demo = app.add_subcommand(
      "demo", "Run the whole pipeline against a sandbox tag server in this process");
  demo->footer(
      "Runs the whole pipeline against a sandbox tag server in this process (127.0.0.1, a free\n"
      "port) with a temporary data directory, then prints the counters and whether every event\n"
      "arrived exactly once. Exit status 1 if any event was lost or the run timed out.");
  demo->add_option("--events", o.events, "Events to fire")
      ->check(CLI::Range(1, 200'000))
      ->capture_default_str();
  demo->add_option("--threads", o.threads, "Threads calling fireEvents at once")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  demo->add_option("--batch-interval", o.batchIntervalMs,
                   "Batch interval (ms) the sandbox server asks the library for")
      ->check(CLI::Range(100, 120'000))
      ->capture_default_str();
  demo->add_flag("--verbose", o.verbose, "Show the library's log at verbose level");
  return demo;
}

CLI::App* addFire(CLI::App& app, FireOptions& o) {
  auto* fire = app.add_subcommand(
      "fire", "Fire events through the library and wait until they are delivered");
  fire->footer(
      "Fires events through the library against a tag server and waits until its queue is empty.\n"
      "The library refuses the call without a site ID (--site-id or --bundle) or without GDPR\n"
      "consent in the user defaults (--not-subject-to-gdpr records that it is not needed).\n"
      "Exit status 0 when delivered, 1 when refused or still queued.");
  fire->add_option("events", o.events, "Event names")->required();
  fire->add_option("--group", o.group, "Event group")->required();
  fire->add_option("--data", o.data, "Event data, a JSON object")->capture_default_str();
  fire->add_option("--server", o.server, "Tag server URL (default: the library's)")
      ->check(kHttpURL);
  fire->add_option("--wait", o.waitSeconds, "Seconds to wait for delivery")
      ->check(CLI::Range(0.0, 3600.0))
      ->capture_default_str();
  fire->add_option("--dir", o.dir, "Data directory holding the queue (default: the program's)");
  auto* site = fire->add_option("--site-id", o.siteId, "Site ID to fire with");
  fire->add_option("--bundle", o.bundle,
                   "Directory with VantrelTagManagerSDKInfo.plist (default: the program's)")
      ->excludes(site)
      ->check(CLI::ExistingDirectory);
  fire->add_option("--defaults", o.defaults, "User defaults file (default: the program's)");
  fire->add_flag("--not-subject-to-gdpr", o.notSubjectToGdpr,
                 "Store IABConsent_SubjectToGDPR=0 in the user defaults before firing");
  fire->add_flag("--assume-online", o.assumeOnline,
                 "Treat the network as reachable instead of watching the kernel's routes");
  fire->add_flag("--backoff", o.backoff,
                 "Wait longer after each failed batch (exponential backoff with jitter)");
  fire->add_flag("--verbose", o.verbose, "Show the library's log at verbose level");
  return fire;
}

CLI::App* addQueue(CLI::App& app, QueueOptions& o) {
  auto* queue = app.add_subcommand("queue", "Show what waits in the library's request queue");
  queue->footer(
      "Shows how many requests wait in the queue, the oldest and newest, and their sizes.\n"
      "Opens the file read-only and changes nothing. Exit status 1 when there is no queue file.");
  queue->add_option("--dir", o.dir, "Data directory holding the queue (default: the program's)");
  queue->add_flag("--json", o.json, "Print JSON for scripts");
  return queue;
}

constexpr std::array<const char*, 3> kCommands = {"demo", "fire", "queue"};

// "vntr fire" when argv names a command, so the error line says which one was misused.
std::string commandName(int argc, char** argv) {
  for (const char* name : kCommands) {
    if (argc > 1 && std::strcmp(argv[1], name) == 0) return std::string("vntr ") + name;
  }
  return "vntr";
}

bool namesUnknownCommand(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return false;
  return std::none_of(kCommands.begin(), kCommands.end(),
                      [&](const char* name) { return std::strcmp(argv[1], name) == 0; });
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"vntr: fire, inspect and demonstrate VNTRTagManager", "vntr"};
  app.require_subcommand(1, 1);
  app.set_version_flag("--version",
                       std::string(reinterpret_cast<const char*>(VNTRTagManagerVersionString)));
  DemoOptions demoOptions;
  FireOptions fireOptions;
  QueueOptions queueOptions;
  auto* demo = addDemo(app, demoOptions);
  auto* fire = addFire(app, fireOptions);
  auto* queue = addQueue(app, queueOptions);
  if (namesUnknownCommand(argc, argv)) {
    std::cerr << "vntr: unknown command: " << argv[1] << " (commands: demo, fire, queue)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    const auto name = commandName(argc, argv);
    std::cerr << name << ": " << e.what() << " (see " << name << " --help)\n";
    return kExitUsage;
  }
  try {
    if (demo->parsed()) return runDemo(demoOptions);
    if (fire->parsed()) return runFire(fireOptions);
    if (queue->parsed()) return runQueue(queueOptions);
  } catch (const std::exception& e) {
    std::cerr << commandName(argc, argv) << ": " << e.what() << "\n";
    return kExitFailed;
  }
  return kExitUsage;
}
