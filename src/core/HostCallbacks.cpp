#include "core/HostCallbacks.hpp"

#include <dlfcn.h>

namespace vntr::detail {

namespace {

using IsFinalizing = int (*)();

// The interpreter's own "is finalizing" query when the process has one: Python exports it
// under its public name from 3.13 on, and with a leading underscore before. It reads one flag
// and needs no lock of the interpreter, so any thread may call it.
IsFinalizing findInterpreterQuery() {
  for (const char* name : {"Py_IsFinalizing", "_Py_IsFinalizing"}) {
    if (void* symbol = ::dlsym(RTLD_DEFAULT, name)) {
      return reinterpret_cast<IsFinalizing>(symbol);  // NOLINT: dlsym hands back data pointers
    }
  }
  return nullptr;
}

}  // namespace

bool hostInterpreterExiting() {
  // Looked up once: a host that loads an interpreter after its first callback is not covered.
  static const IsFinalizing query = findInterpreterQuery();
  return query != nullptr && query() != 0;
}

CallsOnThisThread& callsOnThisThread() {
  thread_local CallsOnThisThread calls;
  return calls;
}

HostCallbacks::HostCallbacks(std::shared_ptr<const VNTRPreferences::LoggingCallback> initialLog)
    : defaultLog(std::move(initialLog)), log(defaultLog, gate) {}

bool HostCallbacks::stop(std::chrono::steady_clock::time_point deadline) {
  gate->close();
  const bool logIdle = log.waitIdle(deadline);
  return delegate.waitIdle(deadline) && logIdle;
}

void HostCallbacks::release() {
  log.replace(defaultLog);
  delegate.replace(nullptr);
}

}  // namespace vntr::detail
