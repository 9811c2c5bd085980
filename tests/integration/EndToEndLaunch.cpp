// The first launch of an app whose tag server is down, for the end-to-end tests: fires events,
// waits until they are saved and a batch has failed, then dies by SIGKILL, without any chance to
// clean up. A later launch over the same directory must still deliver every event.
//
//   vntr_e2e_launch ROOT SERVER_URL COUNT
//
// Exit status 2 for wrong arguments, 3 when the events were not saved or no batch failed in time.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "support/Harness.hpp"
#include "support/LiveRuntime.hpp"
#include "support/TestSupport.hpp"

int main(int argc, char** argv) {
  using namespace vntr;
  if (argc != 4) {
    std::fprintf(stderr, "usage: vntr_e2e_launch ROOT SERVER_URL COUNT\n");
    return 2;
  }
  int count = 0;
  try {
    count = std::stoi(argv[3]);
  } catch (const std::exception&) {
    count = 0;
  }
  if (count <= 0) {
    std::fprintf(stderr, "vntr_e2e_launch: COUNT must be a positive number\n");
    return 2;
  }
  auto delegate = std::make_shared<test::RecordingDelegate>();
  VNTRPreferences::sharedPreferences().setTagManagerDelegate(delegate);
  VNTRPreferences::sharedPreferences().setServerURL(argv[2]);
  // Never destroyed: the process ends by SIGKILL with every thread still running.
  auto* app = new test::LiveRuntime(argv[1]);
  for (int i = 0; i < count; ++i) app->fireEvents({"open"}, "launch1", {{"seq", i}});
  const bool saved = test::waitUntil(
      [&] {
        return delegate->total(VNTRStatistic::eventCreated) == count &&
               delegate->total(VNTRStatistic::requestFailed) >= 1;
      },
      std::chrono::seconds(20));
  if (!saved) {
    std::fprintf(stderr, "vntr_e2e_launch: %lld of %d saved, %lld failed batches\n",
                 static_cast<long long>(delegate->total(VNTRStatistic::eventCreated)), count,
                 static_cast<long long>(delegate->total(VNTRStatistic::requestFailed)));
    return 3;
  }
  ::raise(SIGKILL);
  return 3;  // not reached
}
