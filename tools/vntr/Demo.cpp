#include <vntr/VNTRTagManager.hpp>

#include <iostream>

#include "Commands.hpp"
#include "core/MainQueue.hpp"

namespace vntr::cli {

int runDemo(const DemoOptions& options) {
  (void)options;
  auto& preferences = VNTRPreferences::sharedPreferences();
  preferences.setLogLevel(VantrelLogLevel::verbose);
  std::cout << "Walking calls through the intake checks (log lines follow on stderr):\n";
  VNTRTagManager::fireEvents({"launch"}, "", nlohmann::json::object());
  VNTRTagManager::fireEvents({}, "app", nlohmann::json::object());
  VNTRTagManager::fireEvents({"launch"}, "app", {{"screen", "home"}});
  mainQueue().performAndWait([] {});
  std::cout << "subjectToGdprConsent=" << VNTRTagManager::sharedInstance().subjectToGdprConsent()
            << " hasGdprConsent=" << VNTRTagManager::sharedInstance().hasGdprConsent() << "\n";
  return 0;
}

}  // namespace vntr::cli
