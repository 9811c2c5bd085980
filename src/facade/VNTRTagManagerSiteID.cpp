#include "facade/VNTRTagManagerSiteID.hpp"

#include <algorithm>
#include <string_view>

#include "core/VNTRDebug.hpp"
#include "platform/linux/Files.hpp"
#include "platform/linux/PropertyList.hpp"

namespace vntr {

namespace {
constexpr std::string_view kResourceName = "VantrelTagManagerSDKInfo";
constexpr std::string_view kSiteIDKey = "VantrelSiteID";
}  // namespace

std::optional<std::string> loadSiteID(const std::string& mainBundleDirectory) {
  const auto file = joinPath(mainBundleDirectory, std::string(kResourceName) + ".plist");
  if (!pathExists(file)) {
    Debug(VantrelLogLevel::error,
          "The " + std::string(kResourceName) +
              ".plist file could not be found.  All events will be ignored.");
    return std::nullopt;
  }

  const auto entries = readPropertyListDictionary(file);
  // Every value must be a string: a file with any other value is rejected as a whole.
  const bool onlyStrings =
      entries && std::all_of(entries->begin(), entries->end(),
                             [](const auto& entry) { return entry.second.has_value(); });
  if (!onlyStrings) {
    Debug(VantrelLogLevel::error,
          "The Info plist is not properly formatted.  All events will be ignored.");
    return std::nullopt;
  }

  const auto found = entries->find(std::string(kSiteIDKey));
  if (found == entries->end()) {
    Debug(VantrelLogLevel::error, "Could not find key \"" + std::string(kSiteIDKey) + "\" in \"" +
                                      std::string(kResourceName) + ".plist\".");
    return std::nullopt;
  }
  return found->second;
}

}  // namespace vntr
