#pragma once

#include <optional>
#include <string>

namespace vntr {

/// Reads the site ID from "VantrelTagManagerSDKInfo.plist" (XML or binary property list) in
/// `mainBundleDirectory`: the string under "VantrelSiteID" (an empty string counts). Nothing,
/// after one error line, when the file does not exist, cannot be read, is larger than 1 MiB, is
/// not a dictionary of strings only, or lacks the key. Reads and logs on every call: the caller
/// keeps the result for the life of the process, so each line appears once. Safe on any thread.
std::optional<std::string> loadSiteID(const std::string& mainBundleDirectory);

}  // namespace vntr
