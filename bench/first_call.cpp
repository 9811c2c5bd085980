// The caller's cost of the first fireEvents of a process (the library's start-up included) next
// to a later one, with an empty queue and with a large one. Each figure comes from a fresh
// process, as the first call of a process can only be measured once.
//
//   build/<release dir>/bench/vntr_first_call_bench [rows of the large queue = 200000] [runs = 5]
//
// Prints one JSON line per queue size: the median first call and the median later call, in ms.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "core/Extensions.hpp"
#include "core/ManualExecutor.hpp"
#include "model/Uuid.hpp"
#include "store/EventDataManager.hpp"

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

double millisSince(SteadyClock::time_point start) {
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
}

// A data directory whose queue holds `rows` requests of a typical size, created in the last hour.
void prepare(const fs::path& dir, int64_t rows) {
  fs::create_directories(dir / "bundle");
  std::ofstream(dir / "bundle" / "VantrelTagManagerSDKInfo.plist")
      << "<plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>12345</string></dict>"
         "</plist>\n";
  auto clock = std::make_shared<vntr::SystemClock>();
  auto queue = std::make_shared<vntr::ManualExecutor>();
  vntr::EventDataManager store(dir / "documents", queue, clock);
  queue->runUntilIdle();
  const double now = vntr::referenceDateSeconds(clock->now());
  store.performAndWait([&] {
    for (int64_t i = 0; i < rows; ++i) {
      store.insert(vntr::makeUuidString(), std::string(760, 'r'), now - 3600 + double(i) * 0.01);
      if (i % 2048 == 2047) store.saveContext();
    }
    store.saveContext();
  });
}

// In a fresh process: the first call, then 200 more; prints "<first ms> <median later ms>".
int measure(const fs::path& dir) {
  using vntr::VNTRTagManager;
  VNTRTagManager::setMainBundlePath((dir / "bundle").string());
  VNTRTagManager::setDocumentsDirectory((dir / "documents").string());
  VNTRTagManager::setUserDefaultsPath((dir / "defaults.json").string());
  VNTRTagManager::useHostReachability(0);  // nothing is sent: only the caller's cost counts
  vntr::UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");
  const nlohmann::json data = {{"price", 9.99}};
  auto start = SteadyClock::now();
  VNTRTagManager::fireEvents({"launch"}, "app", data);
  const double first = millisSince(start);
  std::vector<double> later;
  for (int i = 0; i < 200; ++i) {
    start = SteadyClock::now();
    VNTRTagManager::fireEvents({"launch"}, "app", data);
    later.push_back(millisSince(start));
  }
  std::nth_element(later.begin(), later.begin() + 100, later.end());
  std::printf("%.3f %.4f\n", first, later[100]);
  return 0;
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + long(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// Runs `measure` in a fresh copy of `prepared` as a child process, `runs` times.
void report(const fs::path& prepared, const fs::path& work, int64_t rows, int runs) {
  std::vector<double> firsts, laters;
  for (int run = 0; run < runs; ++run) {
    fs::remove_all(work);
    fs::copy(prepared, work, fs::copy_options::recursive);
    // Built by appends: GCC 12 at -O3 warns (-Wrestrict) about `"'" + std::string` here.
    std::string command = "'";
    command += fs::read_symlink("/proc/self/exe").string();
    command += "' measure '";
    command += work.string();
    command += "' 2>/dev/null";
    FILE* child = ::popen(command.c_str(), "r");
    double first = -1, later = -1;
    if (child == nullptr || std::fscanf(child, "%lf %lf", &first, &later) != 2) {
      std::cerr << "vntr_first_call_bench: a measuring run failed\n";
    } else {
      firsts.push_back(first);
      laters.push_back(later);
    }
    if (child != nullptr) ::pclose(child);
  }
  if (firsts.empty()) return;
  std::printf("{\"queued\": %lld, \"firstCallMs\": %.3f, \"laterCallMs\": %.4f, \"runs\": %zu}\n",
              static_cast<long long>(rows), median(firsts), median(laters), firsts.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "measure") return measure(argv[2]);
  const int64_t rows = argc > 1 ? std::stoll(argv[1]) : 200000;
  const int runs = argc > 2 ? std::stoi(argv[2]) : 5;
  char pattern[] = "/tmp/vntr-first-call-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const fs::path root = pattern;
  for (const int64_t queued : {int64_t{0}, rows}) {
    prepare(root / ("prepared-" + std::to_string(queued)), queued);
    report(root / ("prepared-" + std::to_string(queued)), root / "work", queued, runs);
  }
  fs::remove_all(root);
  return 0;
}
