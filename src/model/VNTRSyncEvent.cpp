#include "model/VNTRSyncEvent.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
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

enum class DataCheck { valid, invalid, unserializable };

// Walks the event data without recursion, so hostile nesting cannot overflow the stack.
DataCheck checkEventData(const json& data) {
  if (!data.is_object()) return DataCheck::invalid;
  bool textValid = true;
  std::vector<std::pair<const json*, size_t>> stack;
  stack.reserve(16);  // room for a typical flat object without growing
  stack.emplace_back(&data, 1);
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

// The request text, or nothing after the failure line. The event data arrives serialised: it is
// written in place of a null placeholder, so it is not parsed again.
std::optional<std::string> buildRequest(const SyncEventEnvironment& env, const std::string& id,
                                        const std::vector<std::string>& events,
                                        const std::string& eventGroup,
                                        std::string_view eventDataText, TimePoint now) {
  json request = syncEventBaseDictionary();
  if (!id.empty()) request["id"] = id;
  auto& params = request["params"];
  const EventFacts& facts = env.facts();
  setOrRemove(params, "siteId", facts.siteId);
  setOrRemove(params, "appId", facts.appId);
  params["eventData"] = nullptr;
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
  std::string text;
  try {
    text = request.dump();
  } catch (const json::exception&) {
    // The caller's events or group (or a device fact) are not valid UTF-8.
    Debug(VantrelLogLevel::error, kSerializationFailed);
    return std::nullopt;
  }
  // Every quote inside a string value is escaped, so this member can only be the placeholder.
  static constexpr std::string_view kPlaceholder = R"("eventData":null)";
  const size_t at = text.find(kPlaceholder);
  if (at == std::string::npos) brokenTemplate("eventData placeholder not written");
  text.replace(at + kPlaceholder.size() - 4, 4, eventDataText);
  return text;
}

// The event data as the request will carry it, or nothing after the failure line.
std::optional<std::string> serialisedEventData(const json& eventData) {
  switch (checkEventData(eventData)) {
    case DataCheck::invalid:
      Debug(VantrelLogLevel::error, kInvalidEventData);
      return std::nullopt;
    case DataCheck::unserializable:
      Debug(VantrelLogLevel::error, kEventDataSerializationFailed);
      return std::nullopt;
    case DataCheck::valid:
      break;
  }
  try {
    return eventData.dump();
  } catch (const std::exception&) {
    Debug(VantrelLogLevel::error, kEventDataSerializationFailed);
    return std::nullopt;
  }
}

// Builds, inserts and saves one request from checked, serialised event data; `keep` asks for
// the record object back.
std::shared_ptr<VNTRSyncEvent> build(const SyncEventEnvironment& env,
                                     const std::vector<std::string>& events,
                                     const std::string& eventGroup, std::string_view eventDataText,
                                     VNTREventPriority priority, bool keep) {
  try {
    const TimePoint now = env.clock->now();
    std::string id = chooseId(env.store, priority);
    auto request = buildRequest(env, id, events, eventGroup, eventDataText, now);
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

// Builds everything that waits in `env.pending`, oldest first, on the store queue. All of it in
// one task, as one task per call did: work queued on the store after a call returned still
// runs after that call's build. The store commits every kMaxBatchedSaves builds on the way.
void drainPendingBuilds(const SyncEventEnvironment& env) {
  auto buffers = env.pending->takeAll();
  for (; !buffers.empty(); buffers.pop_front()) {
    PendingBuilds::forEach(
        buffers.front(), [&env](VNTREventPriority priority, const std::vector<std::string>& events,
                                const std::string& eventGroup, std::string_view data) {
          build(env, events, eventGroup, data, priority, /*keep=*/false);
        });
  }
}

// A packed build: priority (1 byte), event count, each event, the group and the event data
// text, every count and length a native 32-bit integer.
constexpr size_t kBufferBytes = 32 * 1024;

uint32_t pieceLength(size_t size) {
  if (size > UINT32_MAX) throw std::length_error("event piece too long");
  return static_cast<uint32_t>(size);
}

void put(std::string& buffer, uint32_t value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  buffer.append(bytes, sizeof value);
}

void put(std::string& buffer, std::string_view piece) {
  put(buffer, static_cast<uint32_t>(piece.size()));
  buffer.append(piece);
}

uint32_t takeLength(std::string_view& buffer) {
  uint32_t value = 0;
  std::memcpy(&value, buffer.data(), sizeof value);
  buffer.remove_prefix(sizeof value);
  return value;
}

std::string_view takePiece(std::string_view& buffer) {
  const uint32_t size = takeLength(buffer);
  const std::string_view piece = buffer.substr(0, size);
  buffer.remove_prefix(size);
  return piece;
}

}  // namespace

bool PendingBuilds::append(VNTREventPriority priority, const std::vector<std::string>& events,
                           std::string_view eventGroup, std::string_view eventDataText) {
  size_t size = 1 + sizeof(uint32_t) * 3 + eventGroup.size() + eventDataText.size();
  pieceLength(events.size());
  for (const auto& event : events) size += sizeof(uint32_t) + pieceLength(event.size());
  pieceLength(eventGroup.size());
  pieceLength(eventDataText.size());
  std::scoped_lock lock(mutex_);
  if (buffers_.empty() || buffers_.back().size() + size > buffers_.back().capacity()) {
    buffers_.emplace_back().reserve(std::max(size, kBufferBytes));
  }
  std::string& buffer = buffers_.back();
  buffer.push_back(static_cast<char>(priority));
  put(buffer, static_cast<uint32_t>(events.size()));
  for (const auto& event : events) put(buffer, event);
  put(buffer, eventGroup);
  put(buffer, eventDataText);
  return !std::exchange(drainScheduled_, true);
}

std::deque<std::string> PendingBuilds::takeAll() {
  std::scoped_lock lock(mutex_);
  drainScheduled_ = false;
  return std::exchange(buffers_, {});
}

void PendingBuilds::forEach(
    std::string_view buffer,
    const std::function<void(VNTREventPriority, const std::vector<std::string>&, const std::string&,
                             std::string_view)>& build) {
  std::vector<std::string> events;
  std::string eventGroup;
  while (!buffer.empty()) {
    const auto priority = static_cast<VNTREventPriority>(buffer.front());
    buffer.remove_prefix(1);
    events.resize(takeLength(buffer));
    for (auto& event : events) event = takePiece(buffer);
    eventGroup = takePiece(buffer);
    build(priority, events, eventGroup, takePiece(buffer));
  }
}

void VNTRSyncEvent::createEvent(const SyncEventEnvironment& env,
                                const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData,
                                VNTREventPriority priority) {
  const auto data = serialisedEventData(eventData);
  if (!data) return;
  try {
    if (env.pending->append(priority, events, eventGroup, *data)) {
      env.store.performBatched([&env] { drainPendingBuilds(env); });
    }
  } catch (const std::exception&) {
    // Out of memory, or a piece too long to pack: dropped like any unbuildable event.
    Debug(VantrelLogLevel::error, kSerializationFailed);
  }
}

std::shared_ptr<VNTRSyncEvent> VNTRSyncEvent::make(const SyncEventEnvironment& env,
                                                   const std::vector<std::string>& events,
                                                   const std::string& eventGroup,
                                                   const nlohmann::json& eventData,
                                                   VNTREventPriority priority) {
  const auto data = serialisedEventData(eventData);
  if (!data) return nullptr;
  return build(env, events, eventGroup, *data, priority, /*keep=*/true);
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
