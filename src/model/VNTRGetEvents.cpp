#include "model/VNTRGetEvents.hpp"

#include <limits>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "model/Uuid.hpp"
#include "model/VNTREventFilter.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"

namespace vntr {
namespace {

const nlohmann::json& getEventBaseDictionary() {
  static const auto* const value = new nlohmann::json(requiredTemplate("GetEventsBase.js"));
  return *value;
}

// A JSON integer as int64, saturating values beyond its range.
int64_t integerValue(const nlohmann::json& value) {
  if (value.is_number_unsigned()) {
    const auto u = value.get<uint64_t>();
    return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
               ? std::numeric_limits<int64_t>::max()
               : static_cast<int64_t>(u);
  }
  return value.get<int64_t>();
}

void setOrRemove(nlohmann::json& params, const char* key, const std::optional<std::string>& value) {
  if (value) {
    params[key] = *value;
  } else {
    params.erase(key);
  }
}

}  // namespace

std::shared_ptr<VNTRGetEvents> VNTRGetEvents::make(const GetEventsEnvironment& env) {
  auto request = getEventBaseDictionary();
  std::string id;
  do {
    id = makeUuidString();
  } while (env.store != nullptr && env.store->checkID(id));
  request["id"] = id;
  auto& params = request["params"];
  if (!params.is_object() || !params["deviceData"].is_object()) {
    Debug(VantrelLogLevel::fatal, "GetEventsBase.js lacks params.deviceData");
    return nullptr;
  }
  const EventFacts& facts = env.facts();
  setOrRemove(params, "siteId", facts.siteId);
  setOrRemove(params, "appId", facts.appId);
  params["version"] = "1.0";
  params["deviceData"]["id"] = facts.idfa;
  std::string jsonData;
  try {
    jsonData = request.dump();
  } catch (const nlohmann::json::exception&) {
    Debug(VantrelLogLevel::error, "GetEvents init :  serialization failed.");
    return nullptr;
  }
  return std::shared_ptr<VNTRGetEvents>(new VNTRGetEvents(env, std::move(id), std::move(jsonData)));
}

void VNTRGetEvents::processResult(const nlohmann::json& result) {
  if (!result.is_object()) return;
  if (const auto interval = result.find("batchInterval");
      interval != result.end() && interval->is_number_integer() && env_.setBatchInterval) {
    env_.setBatchInterval(integerValue(*interval));
  }
  const auto events = result.find("qualifiedEvents");
  const auto expire = result.find("expireEvents");
  if (events == result.end() || expire == result.end() || !expire->is_number_integer()) return;
  if (!events->is_array()) return;
  for (const auto& record : *events) {
    if (!record.is_object()) return;
  }
  if (env_.filter != nullptr) env_.filter->updateFromResult(*events, integerValue(*expire));
}

}  // namespace vntr
