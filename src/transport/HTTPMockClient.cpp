#include "transport/HTTPMockClient.hpp"

#include "core/Extensions.hpp"

namespace vntr {

const nlohmann::json& HTTPMockClient::baseSync() {
  static const auto* const value =
      new nlohmann::json(requiredTemplate("base_response_sync_event.js"));  // never destroyed
  return *value;
}

const nlohmann::json& HTTPMockClient::baseGet() {
  static const auto* const value = [] {
    auto* parsed = new nlohmann::json(requiredTemplate("base_response_get_events.js"));
    if (!(*parsed)["result"].is_object()) (*parsed)["result"] = nlohmann::json::object();
    return parsed;
  }();
  return *value;
}

HTTPMockClient::Fields HTTPMockClient::fields() const {
  std::scoped_lock lock(mutex_);
  return fields_;
}

void HTTPMockClient::setFields(Fields fields) {
  std::scoped_lock lock(mutex_);
  fields_ = std::move(fields);
}

namespace {

HTTPError jsonError(std::string description) { return {"JSON", 9999, std::move(description)}; }

nlohmann::json answerFor(const nlohmann::json& request, const HTTPMockClient::Fields& fields) {
  const auto method = request.find("method");
  const auto id = request.find("id");
  // A request without a method or id cannot be answered; it gets no entry, like an unknown one.
  if (method == request.end() || !method->is_string() || id == request.end()) return nullptr;
  if (*method == "syncEvent") {
    auto answer = HTTPMockClient::baseSync();
    answer["id"] = *id;
    if (fields.errorObject) answer["error"] = *fields.errorObject;
    return answer;
  }
  if (*method == "getEvents") {
    auto answer = HTTPMockClient::baseGet();
    answer["id"] = *id;
    auto& result = answer["result"];
    if (fields.qualifiedEvents && fields.qualifiedEvents->is_object()) {
      for (const char* key : {"qualifiedEvents", "expireEvents"}) {
        if (fields.qualifiedEvents->contains(key)) result[key] = (*fields.qualifiedEvents)[key];
      }
    }
    result["batchInterval"] = fields.batchInterval;
    return answer;
  }
  return nullptr;
}

}  // namespace

void HTTPMockClient::post(std::string body, const std::string& url, HTTPCompletion completion) {
  const Fields fields = this->fields();
  const auto requests = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (requests.is_discarded()) {
    completion(std::nullopt, std::nullopt, jsonError("JSON data was not unserializeable"));
    return;
  }
  bool arrayOfObjects = requests.is_array();
  for (size_t i = 0; arrayOfObjects && i < requests.size(); ++i) {
    arrayOfObjects = requests[i].is_object();
  }
  if (!arrayOfObjects) {
    completion(std::nullopt, std::nullopt, jsonError("JSON data badly formatted"));
    return;
  }
  auto answers = nlohmann::json::array();
  for (const auto& request : requests) {
    if (auto answer = answerFor(request, fields); !answer.is_null()) {
      answers.push_back(std::move(answer));
    }
  }
  std::optional<std::string> generated;
  try {
    generated = answers.dump();
  } catch (const nlohmann::json::exception&) {
    // Echoed ids that are not valid UTF-8 cannot be written; the generated body is absent.
  }
  std::optional<std::string> data;
  if (!fields.shouldSendNilData)
    data = fields.jsonDataResponse ? fields.jsonDataResponse : generated;
  std::optional<HTTPURLResponse> response;
  if (!fields.shouldSendNilURLResponse) response = HTTPURLResponse{url, fields.statusCode};
  completion(std::move(data), std::move(response), std::nullopt);
}

}  // namespace vntr
