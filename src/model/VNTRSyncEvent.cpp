#include "model/VNTRSyncEvent.hpp"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "model/Uuid.hpp"
#include "store/EventDataManager.hpp"

namespace vntr {
namespace {

using nlohmann::json;

constexpr const char* kInvalidEventData =
    "Sync Event: Invalid event Data provided.  Ensure object is valid using "
    "\"isValidJSONObject\".";
constexpr const char* kEventDataSerializationFailed =
    "Sync Event Init : EventData serialization failed.";
constexpr const char* kSerializationFailed = "Sync Event Init :  serialization failed.";
// A UUID clash is all but impossible; the bound only keeps a broken store from looping forever.
constexpr int kMaxIdAttempts = 64;

[[noreturn]] void brokenTemplate(const char* what) {
  const std::string line = std::string("[Fatal] SyncEventBase.js: ") + what + "\n";
  (void)!::write(STDERR_FILENO, line.data(), line.size());
  std::abort();
}

// The request template, loaded once and never destroyed (background threads may build events
// while the process exits).
const json& syncEventBaseDictionary() {
  static const json* const base = [] {
    auto* dictionary = new json(requiredTemplate("SyncEventBase.js"));
    const auto params = dictionary->find("params");
    if (params == dictionary->end() || !params->is_object()) brokenTemplate("no params object");
    for (const char* member : {"deviceData", "appInfo"}) {
      const auto found = params->find(member);
      if (found == params->end() || !found->is_object()) brokenTemplate("incomplete params");
    }
    return dictionary;
  }();
  return *base;
}

// Strict UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF), as the JSON writer
// demands.
bool isValidUTF8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) {
      ++i;
      continue;
    }
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (byte >= 0xC2 && byte <= 0xDF) {
      length = 2;
    } else if (byte >= 0xE0 && byte <= 0xEF) {
      length = 3;
      if (byte == 0xE0) low = 0xA0;
      if (byte == 0xED) high = 0x9F;
    } else if (byte >= 0xF0 && byte <= 0xF4) {
      length = 4;
      if (byte == 0xF0) low = 0x90;
      if (byte == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    const auto second = static_cast<unsigned char>(text[i + 1]);
    if (second < low || second > high) return false;
    for (size_t k = 2; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if (next < 0x80 || next > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

enum class DataCheck { valid, invalid, unserializable };

// Walks the event data without recursion, so hostile nesting cannot overflow the stack.
DataCheck checkEventData(const json& data) {
  if (!data.is_object()) return DataCheck::invalid;
  bool textValid = true;
  std::vector<std::pair<const json*, size_t>> stack{{&data, 1}};
  while (!stack.empty()) {
    const auto [value, depth] = stack.back();
    stack.pop_back();
    switch (value->type()) {
      case json::value_t::object:
      case json::value_t::array:
        if (depth > VNTRSyncEvent::kMaxEventDataDepth) return DataCheck::invalid;
        for (auto it = value->begin(); it != value->end(); ++it) {
          if (value->is_object() && textValid) textValid = isValidUTF8(it.key());
          stack.emplace_back(&*it, depth + 1);
        }
        break;
      case json::value_t::number_float:
        if (!std::isfinite(value->get<double>())) return DataCheck::invalid;
        break;
      case json::value_t::string:
        if (textValid) textValid = isValidUTF8(value->get_ref<const std::string&>());
        break;
      case json::value_t::binary:
      case json::value_t::discarded:
        return DataCheck::invalid;
      default:
        break;
    }
  }
  return textValid ? DataCheck::valid : DataCheck::unserializable;
}

// Whether `data` nests objects and arrays at most `limit` deep (the top level counting 1),
// walked without recursion. Copying recurses once per level, so this runs before any copy.
bool nestingWithin(const json& data, size_t limit) {
  std::vector<std::pair<const json*, size_t>> stack{{&data, 1}};
  while (!stack.empty()) {
    const auto [value, depth] = stack.back();
    stack.pop_back();
    if (!value->is_structured()) continue;
    if (depth > limit) return false;
    for (const auto& member : *value) stack.emplace_back(&member, depth + 1);
  }
  return true;
}

std::string chooseId(EventDataManager& store, VNTREventPriority priority) {
  if (priority != VNTREventPriority::high) return EventDataManager::nilID;
  std::string id = makeUuidString();
  for (int attempt = 1; attempt < kMaxIdAttempts && store.checkID(id); ++attempt) {
    id = makeUuidString();
  }
  return id;
}

void setOrRemove(json& object, const char* key, const std::optional<std::string>& value) {
  if (value) {
    object[key] = *value;
  } else {
    object.erase(key);
  }
}

// The request text, or nothing after the failure line. `eventData` is moved in when it can be.
template <class Data>
std::optional<std::string> buildRequest(const SyncEventEnvironment& env, const std::string& id,
                                        const std::vector<std::string>& events,
                                        const std::string& eventGroup, Data&& eventData,
                                        TimePoint now) {
  json request = syncEventBaseDictionary();
  if (!id.empty()) request["id"] = id;
  auto& params = request["params"];
  const EventFacts& facts = env.facts();
  setOrRemove(params, "siteId", facts.siteId);
  setOrRemove(params, "appId", facts.appId);
  params["eventData"] = std::forward<Data>(eventData);
  params["eventGroup"] = eventGroup;
  params["events"] = events;
  params["version"] = "1.0";
  params["eventTime"] = timestamp(now);
  auto& deviceData = params["deviceData"];
  deviceData["os"] = facts.os;
  deviceData["lang"] = facts.lang;
  deviceData["id"] = facts.idfa;
  deviceData["idfv"] = facts.idfv;
  deviceData["dnt"] = facts.dnt;
  deviceData["hardware"] = facts.hardware;
  deviceData["connectionType"] = env.connectionType ? env.connectionType() : std::string();
  auto& appInfo = params["appInfo"];
  appInfo["appInstallTime"] = facts.appInstallTime;
  appInfo["sdkVersion"] = facts.sdkVersion;
  try {
    return request.dump();
  } catch (const json::exception&) {
    // The caller's events or group (or a device fact) are not valid UTF-8.
    Debug(VantrelLogLevel::error, kSerializationFailed);
    return std::nullopt;
  }
}

// Builds, inserts and saves one request; `keep` asks for the record object back. The event
// data is checked before it is copied, as copying recurses.
template <class Data>
std::shared_ptr<VNTRSyncEvent> build(const SyncEventEnvironment& env,
                                     const std::vector<std::string>& events,
                                     const std::string& eventGroup, Data&& eventData,
                                     VNTREventPriority priority, bool keep) {
  try {
    const TimePoint now = env.clock->now();
    std::string id = chooseId(env.store, priority);
    switch (checkEventData(eventData)) {
      case DataCheck::invalid:
        Debug(VantrelLogLevel::error, kInvalidEventData);
        return nullptr;
      case DataCheck::unserializable:
        Debug(VantrelLogLevel::error, kEventDataSerializationFailed);
        return nullptr;
      case DataCheck::valid:
        break;
    }
    auto request = buildRequest(env, id, events, eventGroup, std::forward<Data>(eventData), now);
    if (!request) return nullptr;
    const double timeStamp = referenceDateSeconds(now);
    std::shared_ptr<VNTRSyncEvent> record;
    int64_t rowId = 0;
    if (keep) {
      rowId = env.store.insert(id, *request, timeStamp);
      record =
          std::make_shared<VNTRSyncEvent>(env.store, rowId, id, std::move(*request), timeStamp);
    } else {
      rowId = env.store.insert(id, std::move(*request), timeStamp);
    }
    Debug(VantrelLogLevel::verbose,
          id == EventDataManager::nilID ? "Low priority event" : "Event id " + id);
    env.store.saveContextThen([] { reportStatistic(VNTRStatistic::eventCreated, 1); });
    return record;
  } catch (const std::exception&) {
    // Only running out of memory gets here; the event is dropped like any unbuildable one.
    Debug(VantrelLogLevel::error, kSerializationFailed);
    return nullptr;
  }
}

}  // namespace

void VNTRSyncEvent::createEvent(const SyncEventEnvironment& env, std::vector<std::string> events,
                                std::string eventGroup, const nlohmann::json& eventData,
                                VNTREventPriority priority) {
  // The caller's data is copied into the task below; data nested deeply enough to overflow the
  // caller's stack while being copied is refused here, before the copy.
  if (!nestingWithin(eventData, kMaxEventDataDepth)) {
    Debug(VantrelLogLevel::error, kInvalidEventData);
    return;
  }
  env.store.performBatched([env = &env, events = std::move(events),
                            eventGroup = std::move(eventGroup), eventData = eventData,
                            priority]() mutable {
    build(*env, events, eventGroup, std::move(eventData), priority, /*keep=*/false);
  });
}

std::shared_ptr<VNTRSyncEvent> VNTRSyncEvent::make(const SyncEventEnvironment& env,
                                                   const std::vector<std::string>& events,
                                                   const std::string& eventGroup,
                                                   const nlohmann::json& eventData,
                                                   VNTREventPriority priority) {
  return build(env, events, eventGroup, eventData, priority, /*keep=*/true);
}

VNTRSyncEvent::VNTRSyncEvent(EventDataManager& store, int64_t rowId, std::string id,
                             std::string jsonData, double timeStamp)
    : store_(store),
      rowId_(rowId),
      id_(std::move(id)),
      jsonData_(std::move(jsonData)),
      timeStamp_(timeStamp) {}

void VNTRSyncEvent::processResult(const nlohmann::json& /*result*/) {
  reportStatistic(VNTRStatistic::eventResultProcessed, 1);
  store_.remove(rowId_);
  // Answers dispatched together share one commit (see performAndWaitJoiningSaves).
  store_.saveContextThen([] {});
}

void VNTRSyncEvent::nilResult() {
  if (id_ != EventDataManager::nilID) {
    Debug(VantrelLogLevel::warning, "Nil response for a non-nil ID event. Removing event anyway.");
  }
  processResult(nullptr);
}

}  // namespace vntr
