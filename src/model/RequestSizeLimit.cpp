#include "model/RequestSizeLimit.hpp"

#include "core/VNTRDebug.hpp"

namespace vntr {

size_t argumentBytes(const std::vector<std::string>& events, std::string_view eventGroup,
                     std::string_view eventDataText) {
  size_t bytes = eventGroup.size() + eventDataText.size();
  for (const auto& event : events) bytes += event.size();
  return bytes;
}

bool refuseOversizedRequest(size_t bytes) {
  if (bytes <= kMaxEventRequestBytes) return false;
  Debug(VantrelLogLevel::error,
        "Event request of at least " + std::to_string(bytes) + " bytes is above the limit of " +
            std::to_string(kMaxEventRequestBytes) + " bytes; it was not stored");
  return true;
}

}  // namespace vntr
