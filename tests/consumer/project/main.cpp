// Built against the installed package only: public headers, the shared library, the config.
#include <vntr/vntr.h>

#include <cstdio>
#include <vntr/VNTRTagManager.hpp>

int main() {
  vntr::VNTRPreferences::sharedPreferences().setLogLevel(vntr::VantrelLogLevel::fatal);
  vntr::VNTRTagManager::fireEvents({"installed"}, "consumer", {{"ok", true}});
  std::printf("consumer linked VNTRTagManager %s\n",
              reinterpret_cast<const char*>(VNTRTagManagerVersionString));
  return VNTRTagManagerVersionNumber > 0 ? 0 : 1;
}
