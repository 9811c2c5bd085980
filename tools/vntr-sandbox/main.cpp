// vntr-sandbox: a local tag server for trying an app's tagging without the production server.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "SandboxServer.hpp"

namespace {

using nlohmann::json;
using vntr::sandbox::SandboxConfig;
using vntr::sandbox::SandboxServer;

constexpr int kUsageError = 2;

int usageError(const std::string& message) {
  std::cerr << "vntr-sandbox: " << message << "\n";
  return kUsageError;
}

// The list is given inline or as a file; inline JSON wins when the text parses as JSON.
std::optional<json> loadQualifiedEvents(const std::string& argument, std::string& error) {
  json value = json::parse(argument, nullptr, false);
  if (value.is_discarded()) {
    std::ifstream file(argument);
    if (!file) {
      error = "--qualified-events: neither JSON nor a readable file: " + argument;
      return std::nullopt;
    }
    std::stringstream content;
    content << file.rdbuf();
    value = json::parse(content.str(), nullptr, false);
    if (value.is_discarded()) {
      error = "--qualified-events: " + argument + " does not hold JSON";
      return std::nullopt;
    }
  }
  if (!value.is_array()) {
    error = "--qualified-events: expected a JSON array of {\"eventName\", \"ignoreBatch\"} records";
    return std::nullopt;
  }
  return value;
}

void printBatch(const json& batch) {
  int64_t events = 0;
  int64_t repeated = 0;
  for (const json& member : batch.value("members", json::array())) {
    if (member.value("method", json()) != "syncEvent") continue;
    ++events;
    if (member.value("arrival", json(1)) != 1) ++repeated;
  }
  std::printf("batch %s: %lld events (%lld resent), %s bytes, answer %s\n",
              batch.value("seq", json()).dump().c_str(), static_cast<long long>(events),
              static_cast<long long>(repeated), batch.value("bytes", json()).dump().c_str(),
              batch.value("delivery", std::string("?")).c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "vntr-sandbox: a local tag server that answers batches and the consent check,\n"
      "records what it receives and shows it on a web page.",
      "vntr-sandbox"};
  SandboxConfig config;
  config.port = 8080;
  std::string qualified;
  bool quiet = false;
  auto& f = config.faults;
  app.add_option("--host", config.host, "Address to listen on")->capture_default_str();
  app.add_option("--port", config.port, "Port to listen on (0: any free port)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--batch-interval", config.batchIntervalMs,
                 "\"batchInterval\" sent to clients, in milliseconds")
      ->capture_default_str();
  app.add_option("--qualified-events", qualified,
                 "Qualified-event list: a JSON array, inline or in a file");
  app.add_option("--expire-events", config.expireEventsMs,
                 "\"expireEvents\" sent with the list, in milliseconds")
      ->capture_default_str();
  app.add_flag("--needs-consent", config.needsConsent, "Consent check answers needs_consent true");
  app.add_option("--status", f.statusCode, "HTTP status of batch answers")
      ->check(CLI::Range(100, 599))
      ->capture_default_str();
  app.add_option("--drop", f.dropShare, "Share of event ids left unanswered, 0 to 1")
      ->check(CLI::Range(0.0, 1.0));
  app.add_flag("--error-entries", f.errorEntries, "Answer events with errors instead of results");
  app.add_flag("--malformed", f.malformedBody, "Answer batches with a body that is not JSON");
  app.add_flag("--empty-body", f.emptyBody, "Answer batches without a body");
  app.add_option("--delay-ms", f.delayMs, "Wait before answering a batch")
      ->check(CLI::Range(0, 600000));
  app.add_flag("--close", f.closeConnection, "Close the connection instead of answering");
  app.add_option("--retry-after", f.retryAfterSeconds,
                 "Send Retry-After with this many seconds in batch answers")
      ->check(CLI::Range(0, 86400));
  app.add_flag("-q,--quiet", quiet, "Do not print a line per batch");

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {  // --help
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return usageError(e.what());
  }
  if (!qualified.empty()) {
    std::string error;
    config.qualifiedEvents = loadQualifiedEvents(qualified, error);
    if (!config.qualifiedEvents) return usageError(error);
  }

  // Block the stop signals before any server thread exists, so only sigwait below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  SandboxServer server(config);
  if (!quiet) server.setBatchObserver(printBatch);
  if (!server.start()) {
    std::cerr << "vntr-sandbox: cannot listen on " << config.host << ":" << config.port << "\n";
    return 1;
  }
  std::printf("vntr-sandbox serving on %s\n  tags:    %s\n  consent: %s\n  page:    %s/\n",
              server.baseURL().c_str(), server.tagsURL().c_str(), server.consentURL().c_str(),
              server.baseURL().c_str());
  std::fflush(stdout);

  int received = 0;
  sigwait(&stopSignals, &received);
  server.stop();
  const auto stats = vntr::sandbox::toJSON(server.stats());
  std::printf("stopped: %s\n", stats.dump().c_str());
  return 0;
}
