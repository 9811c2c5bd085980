// Fires one event at a tag server (by default the sandbox, `vntr-sandbox --port 8080`).
#include <vntr/vntr.h>

#include <cstdio>
#include <vntr/UserDefaults.hpp>
#include <vntr/VNTRTagManager.hpp>

int main(int argc, char** argv) {
  const char* server = argc > 1 ? argv[1] : "http://127.0.0.1:8080/tags";

  // Before the first event: the site ID, used unless VantrelTagManagerSDKInfo.plist beside the
  // executable has one. (setDocumentsDirectory would choose where the queue lives.)
  vntr::VNTRTagManager::setSiteID("12345");

  auto& preferences = vntr::VNTRPreferences::sharedPreferences();
  preferences.setLogLevel(vntr::VantrelLogLevel::info);
  preferences.setServerURL(server);
  preferences.setRetryBackoff(true);  // recommended: a failing server is not hammered

  // What the app's consent component would write; without consent every event is refused.
  vntr::UserDefaults::standardUserDefaults().setString("IABConsent_SubjectToGDPR", "0");

  vntr::VNTRTagManager::fireEvents({"checkout"}, "purchase", {{"price", 9.99}});
  // Before exiting, give the event up to 2 s to reach the server; otherwise it stays stored and
  // goes out with the next run.
  const bool delivered = vntr::VNTRTagManager::flush(std::chrono::seconds(2));
  std::printf("VNTRTagManager %s: event stored for %s, %s\n", vntr_version(), server,
              delivered ? "delivered" : "still queued");
  return 0;
}
