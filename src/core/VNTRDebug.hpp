#pragma once

#include <string>
#include <utility>
#include <vector>
#include <vntr/VNTRPreferences.hpp>

namespace vntr {

namespace detail {
/// Hands the message to the main queue, where the logging callback of the shared preferences
/// (read at delivery) receives it.
void deliverLog(VantrelLogLevel level, std::vector<std::string> strings);
}  // namespace detail

/// Logs one message made of `pieces`. Never filters and never formats on the calling thread:
/// the pieces are handed to the main queue as they are and delivered there asynchronously,
/// also when called on the main queue itself.
template <class... Pieces>
void Debug(VantrelLogLevel level, Pieces&&... pieces) {
  std::vector<std::string> strings;
  strings.reserve(sizeof...(pieces));
  (strings.emplace_back(std::forward<Pieces>(pieces)), ...);
  detail::deliverLog(level, std::move(strings));
}

/// Builds the line the default callback writes: "[" + level word + "] " + strings joined by ",".
std::string formatLogLine(VantrelLogLevel level, const std::vector<std::string>& strings);

}  // namespace vntr
