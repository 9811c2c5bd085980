#include "support/TestSupport.hpp"

#include <httplib.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string_view>

#include "core/MainQueue.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr::test {

namespace fs = std::filesystem;
using nlohmann::json;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "vntr-test-XXXXXX").string();
  char* made = mkdtemp(pattern.data());
  path_ = made != nullptr ? fs::path(made) : fs::path(pattern);
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
  fs::remove_all(path_, ignored);
}

CapturingLog::CapturingLog(bool keep)
    : previousLevel_(VNTRPreferences::sharedPreferences().logLevel()) {
  drainMainQueue();  // messages from before this log was installed are not ours
  if (keep) VNTRPreferences::sharedPreferences().setLogLevel(VantrelLogLevel::verbose);
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [this, keep](VantrelLogLevel level, const std::vector<std::string>& strings) {
        if (!keep) return;
        std::scoped_lock lock(mutex_);
        lines_.push_back(formatLogLine(level, strings));
      });
}

CapturingLog::~CapturingLog() {
  drainMainQueue();
  VNTRPreferences::sharedPreferences().setLoggingCallback(nullptr);
  VNTRPreferences::sharedPreferences().setLogLevel(previousLevel_);
}

std::vector<std::string> CapturingLog::lines() {
  drainMainQueue();
  std::scoped_lock lock(mutex_);
  return lines_;
}

size_t CapturingLog::count(const std::string& line, bool prefix) {
  const auto all = lines();
  return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& l) {
    return prefix ? l.starts_with(line) : l == line;
  }));
}

void CapturingLog::clear() {
  drainMainQueue();
  std::scoped_lock lock(mutex_);
  lines_.clear();
}

void drainMainQueue() {
  // Messages may post further messages; two rounds cover a log line logged from a log task.
  mainQueue().performAndWait([] {});
  mainQueue().performAndWait([] {});
}

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

std::string readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeSiteID(const fs::path& bundleDirectory) {
  fs::create_directories(bundleDirectory);
  std::ofstream(bundleDirectory / "VantrelTagManagerSDKInfo.plist")
      << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>VantrelSiteID</key><string>12345</string></dict></plist>
)";
}

HostLayout::HostLayout(fs::path r)
    : root(std::move(r)),
      bundle(root / "bundle"),
      documents(root / "documents"),
      defaults(root / "config" / "defaults.json"),
      store(documents / "requests_Data.sqlite") {}

StoreContents readStore(const fs::path& storeFile) {
  StoreContents contents;
  std::error_code ec;
  if (!fs::exists(storeFile, ec)) return contents;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(storeFile.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    contents.error = db != nullptr ? sqlite3_errmsg(db) : "cannot open";
    sqlite3_close_v2(db);
    return contents;
  }
  sqlite3_busy_timeout(db, 5000);
  contents.opened = true;
  const auto check = [](void* out, int, char** values, char**) {
    auto& text = static_cast<StoreContents*>(out)->integrity;
    text += (text.empty() ? "" : "\n") + std::string(values[0] != nullptr ? values[0] : "");
    return 0;
  };
  const auto request = [](void* out, int, char** values, char**) {
    auto& read = *static_cast<StoreContents*>(out);
    ++read.rows;
    if (values[0] != nullptr) read.sequences.insert(std::strtoll(values[0], nullptr, 10));
    return 0;
  };
  // A store killed before it made its table holds no requests.
  const char* requests = "SELECT json_extract(jsonData, '$.params.eventData.seq') FROM SyncEvent";
  if (sqlite3_exec(db, "PRAGMA integrity_check", check, &contents, nullptr) != SQLITE_OK ||
      (sqlite3_exec(db, requests, request, &contents, nullptr) != SQLITE_OK &&
       !std::string_view(sqlite3_errmsg(db)).starts_with("no such table"))) {
    contents.error = sqlite3_errmsg(db);
  }
  sqlite3_close_v2(db);
  return contents;
}

int64_t rowsOnDisk(const fs::path& storeFile) {
  const StoreContents contents = readStore(storeFile);
  return contents.opened && contents.error.empty() ? contents.rows : -1;
}

std::optional<int64_t> sequenceOf(const json& request) {
  if (!request.is_object()) return std::nullopt;
  const json* data = &request;
  if (const auto params = request.find("params"); params != request.end()) data = &*params;
  const auto eventData = data->find("eventData");
  if (eventData == data->end() || !eventData->is_object()) return std::nullopt;
  const auto seq = eventData->find("seq");
  if (seq == eventData->end() || !seq->is_number_integer()) return std::nullopt;
  return seq->get<int64_t>();
}

void RecordingDelegate::notifyForStatistic(int64_t statistic, int64_t adjustment) {
  if (statistic >= 0 && statistic < static_cast<int64_t>(totals_.size())) {
    totals_[static_cast<size_t>(statistic)].fetch_add(adjustment);
  }
  if (!keepCalls_) return;
  std::scoped_lock lock(mutex_);
  calls_.push_back(statistic);
}

std::vector<int64_t> RecordingDelegate::statistics() const {
  std::scoped_lock lock(mutex_);
  return calls_;
}

int64_t RecordingDelegate::total(int64_t statistic) const {
  if (statistic < 0 || statistic >= static_cast<int64_t>(totals_.size())) return 0;
  return totals_[static_cast<size_t>(statistic)].load();
}

int64_t RecordingDelegate::finishedBatches() const {
  return (*this)[VNTRStatistic::responseReceived] + (*this)[VNTRStatistic::requestFailed];
}

void RecordingDelegate::clear() {
  for (auto& total : totals_) total.store(0);
  std::scoped_lock lock(mutex_);
  calls_.clear();
}

LoopbackServer::LoopbackServer(const std::function<void(httplib::Server&)>& routes,
                               const SelfSignedCertificate* tls) {
  if (tls != nullptr) {
    server_ = std::make_unique<httplib::SSLServer>(tls->certificate.c_str(), tls->key.c_str());
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  if (!server_->is_valid()) return;
  server_->new_task_queue = [] { return new httplib::ThreadPool(16); };
  routes(*server_);
  server_->set_logger([this](const auto&, const auto&) { requests_.fetch_add(1); });
  const int port = server_->bind_to_any_port("127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  if (waitUntil([this] { return server_->is_running(); })) port_ = port;
}

LoopbackServer::~LoopbackServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string LoopbackServer::url(const std::string& path) const {
  const bool tls = dynamic_cast<const httplib::SSLServer*>(server_.get()) != nullptr;
  return (tls ? "https" : "http") + std::string("://127.0.0.1:") + std::to_string(port_) + path;
}

}  // namespace vntr::test
