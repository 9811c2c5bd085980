#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace vntr {

/// One entry of the server's batch answer: the answer to the request with `id`.
class VNTRRemoteResponse {
 public:
  /// The entry's response, or nothing when it has no string "id" or neither an object "result"
  /// nor an object "error". Logs nothing; the caller does.
  static std::optional<VNTRRemoteResponse> make(const nlohmann::json& dictionary);

  std::string id;
  std::optional<nlohmann::json> remoteResult;  // always an object when present
  std::optional<nlohmann::json> remoteError;   // always an object when present
};

}  // namespace vntr
