#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace vntr {

/// A request the requester can put into a batch and hand the server's answer back to.
/// The requester calls `processResult` / `nilResult` on the store queue.
class VNTRMethodProtocol {
 public:
  virtual ~VNTRMethodProtocol() = default;
  /// The key under which the server's answer to this request comes back.
  virtual const std::string& id() const = 0;
  /// The request's JSON text, one element of the batch array.
  virtual const std::string& jsonData() const = 0;
  /// The server answered this id with a result object.
  virtual void processResult(const nlohmann::json& result) = 0;
  /// The server's answer held nothing for this id.
  virtual void nilResult() = 0;
};

}  // namespace vntr
