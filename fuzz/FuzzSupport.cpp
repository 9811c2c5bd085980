#include "FuzzSupport.hpp"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <system_error>
#include <vntr/VNTRPreferences.hpp>
#include <vntr/VNTRTagManager.hpp>

#include "core/ManualExecutor.hpp"

namespace vntr::fuzz {

namespace {

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "fuzzer setup failed: %s\n", what.c_str());
  std::abort();
}

std::filesystem::path& scratchPath() {
  static auto* const path = new std::filesystem::path;  // removed by the exit handler
  return *path;
}

void removeScratch() {
  std::error_code ec;
  std::filesystem::remove_all(scratchPath(), ec);
}

std::shared_ptr<ManualExecutor>& mainExecutor() {
  static auto* const executor = new std::shared_ptr<ManualExecutor>;
  return *executor;
}

}  // namespace

std::filesystem::path scratchDirectory() {
  auto& path = scratchPath();
  if (!path.empty()) return path;
  std::error_code ec;
  std::filesystem::path base = "/dev/shm";
  if (const char* chosen = std::getenv("VNTR_FUZZ_SCRATCH"); chosen != nullptr && *chosen != 0) {
    base = chosen;  // the runner's own directory, removed by it even after a crash
  } else if (::access(base.c_str(), W_OK) != 0) {
    base = std::filesystem::temp_directory_path(ec);
  }
  std::string pattern = (base / "vntr-fuzz-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) die("cannot create a directory in " + base.string());
  path = pattern;
  std::atexit(removeScratch);
  return path;
}

ManualExecutor& quietMainQueue() {
  auto& executor = mainExecutor();
  if (executor) return *executor;
  executor = std::make_shared<ManualExecutor>();
  if (!VNTRTagManager::setMainQueue(executor)) die("the main queue was already in use");
  VNTRPreferences::sharedPreferences().setLoggingCallback(
      [](VantrelLogLevel, const std::vector<std::string>&) {});
  return *executor;
}

void drainMainQueue() {
  if (auto& executor = mainExecutor()) executor->runUntilIdle();
}

void runOnSmallStack(const std::function<void()>& body, size_t stackBytes) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (pthread_attr_setstacksize(&attributes, stackBytes) != 0) die("bad stack size");
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  const int created =
      pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body));
  pthread_attr_destroy(&attributes);
  if (created != 0) die("cannot start a thread");
  pthread_join(thread, nullptr);
}

void writeInput(const std::filesystem::path& file, const uint8_t* data, size_t size) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  if (!out) die("cannot write " + file.string());
}

}  // namespace vntr::fuzz
