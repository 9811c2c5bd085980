#pragma once

#include <cxxabi.h>
#include <vntr/vntr.h>

#include "core/Extensions.hpp"

namespace vntr::capi {

/// Runs the body of a C function: whatever it throws becomes VNTR_INVALID_ARGUMENT, so nothing
/// escapes into a host that cannot catch C++ exceptions.
template <class Body>
vntr_status_t guarded(Body&& body) {
  try {
    return body();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return VNTR_INVALID_ARGUMENT;
  }
}

/// A C string the library may take: not NULL and well-formed UTF-8.
inline bool validText(const char* text) { return text != nullptr && isValidUTF8(text); }

}  // namespace vntr::capi
