// Event data as JSON text through the C API, into the real process-wide tag manager over a
// scratch data directory. The host reports no network, so nothing is ever sent; stored events
// are deleted every few inputs so the store stays small. A call the C API accepts must store
// exactly one event, a refused one none.
//
// The same data, parsed without the C API's depth pre-check, also goes straight to the
// sync-event build (low priority), which has its own depth and validity checks.
#include <vntr/vntr.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "FuzzSupport.hpp"
#include "Runtime.hpp"
#include "model/VNTREventPriority.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"

namespace {

constexpr int kInputsBetweenDrains = 128;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "C API event data: %s\n", what.c_str());
  std::abort();
}

void check(vntr_status_t status, const char* what) {
  if (status != VNTR_OK) fail(std::string("setup: ") + what);
}

vntr::EventDataManager& store() { return vntr::Runtime::shared().store(); }

int64_t storedCount() {
  int64_t n = 0;
  store().performAndWait([&n] { n = store().count(); });
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vntr::fuzz::quietMainQueue();
  const auto dir = vntr::fuzz::scratchDirectory();
  const auto bundle = dir / "bundle";
  std::filesystem::create_directories(bundle);
  std::ofstream(bundle / "VantrelTagManagerSDKInfo.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<plist version=\"1.0\"><dict><key>VantrelSiteID</key><string>fuzz-site</string>"
         "</dict></plist>\n";
  check(vntr_set_main_bundle_path(bundle.c_str()), "main bundle path");
  check(vntr_set_documents_directory((dir / "documents").c_str()), "documents directory");
  check(vntr_set_user_defaults_path((dir / "UserDefaults.json").c_str()), "user defaults path");
  check(vntr_use_host_reachability(0), "host reachability");
  // Not subject to GDPR: consent is granted without a remote check.
  check(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0"), "consent");
  if (vntr_has_gdpr_consent() != 1) fail("setup: consent not granted");
  storedCount();  // creates the store before the first input
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int inputs = 0;
  // The C API reads up to the first NUL, like any C caller's string.
  const std::string text(vntr::fuzz::asText(data, size));
  const char* events[] = {"fuzz-event"};

  const int64_t before = storedCount();
  const vntr_status_t status = vntr_fire_events(events, 1, "fuzz-group", text.c_str());
  if (status != VNTR_OK && status != VNTR_INVALID_ARGUMENT) fail("unknown status");
  const int64_t stored = storedCount() - before;  // waits for the build on the store queue
  if (stored != (status == VNTR_OK ? 1 : 0)) {
    fail("status " + std::to_string(status) + " but " + std::to_string(stored) + " stored");
  }

  const auto parsed = nlohmann::json::parse(text.c_str(), nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_discarded()) {
    const auto& env = vntr::Runtime::shared().syncEventEnvironment();
    store().performAndWait([&] {
      const int64_t queued = store().count();
      auto record = vntr::VNTRSyncEvent::make(env, {"fuzz-event"}, "fuzz-group", parsed,
                                              vntr::VNTREventPriority::low);
      // Its row id may still be provisional (SQLite gives the real one at the save), but the
      // queue holds it.
      if (record && store().count() != queued + 1) fail("built but not stored");
      if (record) record->processResult(nullptr);  // answered: deleted again
    });
  }

  if (++inputs % kInputsBetweenDrains == 0) {
    store().performAndWait([] { store().removeOldest(0); });
  }
  vntr::fuzz::drainMainQueue();
  return 0;
}
