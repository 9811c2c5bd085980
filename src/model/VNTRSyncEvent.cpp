#include "model/VNTRSyncEvent.hpp"

#include <cmath>
#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "model/RequestSizeLimit.hpp"
#include "model/SyncEventRequest.hpp"
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
// A UUID clash is all but impossible; the bound only keeps a broken store from looping forever.
constexpr int kMaxIdAttempts = 64;

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
    auto request =
        buildSyncEventRequest(env, id, events, eventGroup, eventDataText, now, /*asParts=*/!keep);
    if (!request || refuseOversizedRequest(request->size)) return nullptr;
    const double timeStamp = referenceDateSeconds(now);
    std::shared_ptr<VNTRSyncEvent> record;
    int64_t rowId = 0;
    if (keep) {
      rowId = env.store.insert(id, request->text, timeStamp);
      record = std::make_shared<VNTRSyncEvent>(env.store, rowId, id, std::move(request->text),
                                               timeStamp);
    } else {
      // Kept as parts until its save writes it out: a burst's requests waiting for their
      // commit take a fraction of the memory.
      rowId = env.store.insert(id, std::move(request->text), timeStamp, std::move(request->writer));
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
  env.pending->drain([&env](VNTREventPriority priority, const std::vector<std::string>& events,
                            const std::string& eventGroup, std::string_view data) {
    build(env, events, eventGroup, data, priority, /*keep=*/false);
  });
}

}  // namespace

void VNTRSyncEvent::createEvent(const SyncEventEnvironment& env,
                                const std::vector<std::string>& events,
                                const std::string& eventGroup, const nlohmann::json& eventData,
                                VNTREventPriority priority) {
  const auto data = serialisedEventData(eventData);
  if (!data || refuseOversizedRequest(argumentBytes(events, eventGroup, *data))) return;
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
  if (!data || refuseOversizedRequest(argumentBytes(events, eventGroup, *data))) return nullptr;
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
  store_.remove(rowId_, id_);
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
