#pragma once

#include <string>

namespace vntr {

/// A fresh random (version 4) UUID in its canonical upper-case form, 36 characters.
std::string makeUuidString();

}  // namespace vntr
