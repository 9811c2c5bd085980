// The C functions over the standard user defaults and the process paths: thin guards that check
// their arguments and never let anything escape into the host.
#include <vntr/vntr.h>

#include <cmath>
#include <vntr/UserDefaults.hpp>

#include "capi/CApiGuard.hpp"
#include "core/Extensions.hpp"
#include "core/ProcessSettings.hpp"

namespace {

using vntr::capi::guarded;
using vntr::capi::validText;

vntr_status_t setPath(const char* path, bool (*setter)(std::string)) {
  if (!validText(path) || *path == '\0') return VNTR_INVALID_ARGUMENT;
  return guarded([&] { return setter(std::string(path)) ? VNTR_OK : VNTR_INVALID_ARGUMENT; });
}

}  // namespace

extern "C" {

vntr_status_t vntr_user_defaults_set_string(const char* key, const char* value) {
  if (!validText(key) || (value != nullptr && !vntr::isValidUTF8(value))) {
    return VNTR_INVALID_ARGUMENT;
  }
  return guarded([&] {
    auto& defaults = vntr::UserDefaults::standardUserDefaults();
    if (value == nullptr) {
      defaults.removeObjectForKey(key);
    } else {
      defaults.setString(key, value);
    }
    return VNTR_OK;
  });
}

vntr_status_t vntr_user_defaults_set_double(const char* key, double value) {
  if (!validText(key) || !std::isfinite(value)) return VNTR_INVALID_ARGUMENT;
  return guarded([&] {
    vntr::UserDefaults::standardUserDefaults().setDouble(key, value);
    return VNTR_OK;
  });
}

vntr_status_t vntr_user_defaults_set_bool(const char* key, int value) {
  if (!validText(key)) return VNTR_INVALID_ARGUMENT;
  return guarded([&] {
    vntr::UserDefaults::standardUserDefaults().setBool(key, value != 0);
    return VNTR_OK;
  });
}

vntr_status_t vntr_set_main_bundle_path(const char* directory) {
  return setPath(directory, &vntr::setMainBundlePath);
}

vntr_status_t vntr_set_documents_directory(const char* directory) {
  return setPath(directory, &vntr::setDocumentsDirectory);
}

vntr_status_t vntr_set_user_defaults_path(const char* file) {
  return setPath(file, &vntr::setUserDefaultsPath);
}

}  // extern "C"
