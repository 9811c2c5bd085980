#include "transport/VNTRRequestResponse.hpp"

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {

std::optional<VNTRRemoteResponse> VNTRRemoteResponse::make(const nlohmann::json& dictionary) {
  const auto id = dictionary.find("id");
  if (id == dictionary.end() || !id->is_string()) return std::nullopt;
  VNTRRemoteResponse response;
  response.id = id->get<std::string>();
  if (const auto result = dictionary.find("result");
      result != dictionary.end() && result->is_object()) {
    response.remoteResult = *result;
  }
  if (const auto error = dictionary.find("error");
      error != dictionary.end() && error->is_object()) {
    response.remoteError = *error;
  }
  if (!response.remoteResult && !response.remoteError) return std::nullopt;
  return response;
}

namespace {

void logNotSerializable() {
  Debug(VantrelLogLevel::warning, "Remote Response was not serializable");
}

}  // namespace

std::optional<VNTRRequestResponse> VNTRRequestResponse::make(std::string_view data) {
  if (data.size() > kMaxBodyBytes || !jsonNestingWithin(data, kMaxDepth)) {
    logNotSerializable();
    return std::nullopt;
  }
  const auto parsed = nlohmann::json::parse(data, nullptr, /*allow_exceptions=*/false);
  // A bare scalar is not a valid top level for the platform reader either.
  if (parsed.is_discarded() || (!parsed.is_array() && !parsed.is_object())) {
    logNotSerializable();
    return std::nullopt;
  }
  bool usable = parsed.is_array();
  for (size_t i = 0; usable && i < parsed.size(); ++i) usable = parsed[i].is_object();
  if (!usable) {
    Debug(VantrelLogLevel::warning,
          "Remote Response is not an array of dictionaries, therefore not usable");
    return std::nullopt;
  }
  VNTRRequestResponse response;
  response.methodResponses.reserve(parsed.size());
  for (const auto& entry : parsed) {
    if (auto method = VNTRRemoteResponse::make(entry)) {
      response.methodResponses.push_back(std::move(*method));
    } else {
      Debug(VantrelLogLevel::warning,
            "Unable to create remote Response Object for single response.");
    }
  }
  return response;
}

}  // namespace vntr
