// C functions a host calls while setting the library up: its own site ID and the version.
#include <vntr/vntr.h>

#include <vntr/VNTRTagManager.hpp>

#include "capi/CApiGuard.hpp"
#include "core/VNTRDebug.hpp"

extern "C" {

vntr_status_t vntr_set_site_id(const char* site_id) {
  return vntr::capi::guarded([&] {
    if (site_id == nullptr) {
      vntr::Debug(vntr::VantrelLogLevel::error, "vntr_set_site_id: NULL site ID; ignored.");
      return VNTR_INVALID_ARGUMENT;
    }
    // The C++ setter logs its own reasons (empty, not UTF-8, too late).
    return vntr::VNTRTagManager::setSiteID(site_id) ? VNTR_OK : VNTR_INVALID_ARGUMENT;
  });
}

const char* vntr_version(void) {
  return reinterpret_cast<const char*>(VNTRTagManagerVersionString);
}

}  // extern "C"
