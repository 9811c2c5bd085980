#include "model/VNTRSyncEvent.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "model/RequestSizeLimit.hpp"
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

// The members that change from one request to the next; the rest comes from the template and
// the device facts. `id` unset keeps the template's.
struct VariableMembers {
  std::optional<std::string> id;
  json events, eventGroup, eventTime, eventData, connectionType;
};

json fillTemplate(const EventFacts& facts, VariableMembers members) {
  json request = syncEventBaseDictionary();
  if (members.id) request["id"] = std::move(*members.id);
  auto& params = request["params"];
  setOrRemove(params, "siteId", facts.siteId);
  setOrRemove(params, "appId", facts.appId);
  params["eventData"] = std::move(members.eventData);
  params["eventGroup"] = std::move(members.eventGroup);
  params["events"] = std::move(members.events);
  params["version"] = "1.0";
  params["eventTime"] = std::move(members.eventTime);
  auto& deviceData = params["deviceData"];
  deviceData["os"] = facts.os;
  deviceData["lang"] = facts.lang;
  deviceData["id"] = facts.idfa;
  deviceData["idfv"] = facts.idfv;
  deviceData["dnt"] = facts.dnt;
  deviceData["hardware"] = facts.hardware;
  deviceData["connectionType"] = std::move(members.connectionType);
  auto& appInfo = params["appInfo"];
  appInfo["appInstallTime"] = facts.appInstallTime;
  appInfo["sdkVersion"] = facts.sdkVersion;
  return request;
}

// The request text for one set of device facts, rendered once with a marker in each variable
// member and cut there. A build then writes only its own members between the fixed pieces:
// copying and serialising the whole template per event cost more than storing it.
class RequestLayout {
 public:
  enum Slot : size_t { id, events, eventGroup, eventTime, eventData, connectionType, count };
  using Texts = std::array<std::string_view, Slot::count>;  // JSON text of each member

  explicit RequestLayout(const EventFacts& facts) : facts_(facts) {
    VariableMembers markers;
    markers.id = marker(id);
    markers.events = marker(events);
    markers.eventGroup = marker(eventGroup);
    markers.eventTime = marker(eventTime);
    markers.eventData = marker(eventData);
    markers.connectionType = marker(connectionType);
    std::string text;
    try {
      text = fillTemplate(facts, std::move(markers)).dump();
      templateId_ = syncEventBaseDictionary().at("id").dump();
    } catch (const json::exception&) {
      return;  // a fact that is not valid UTF-8, or no template id: every build renders whole
    }
    struct Found {
      size_t at, length;
      Slot slot;
      bool operator<(const Found& other) const { return at < other.at; }
    };
    std::array<Found, Slot::count> found{};
    for (size_t slot = 0; slot < Slot::count; ++slot) {
      const std::string quoted = json(marker(static_cast<Slot>(slot))).dump();
      const size_t at = text.find(quoted);
      // A fact that happens to hold a marker's text would make the cut ambiguous.
      if (at == std::string::npos || text.find(quoted, at + 1) != std::string::npos) return;
      found[slot] = {at, quoted.size(), static_cast<Slot>(slot)};
    }
    std::sort(found.begin(), found.end());
    size_t from = 0;
    for (size_t i = 0; i < Slot::count; ++i) {
      pieces_[i] = text.substr(from, found[i].at - from);
      order_[i] = found[i].slot;
      from = found[i].at + found[i].length;
    }
    pieces_[Slot::count] = text.substr(from);
    usable_ = true;
  }

  bool usable() const { return usable_; }
  bool renderedFrom(const EventFacts& facts) const { return facts == facts_; }
  const std::string& templateId() const { return templateId_; }

  std::string render(const Texts& texts) const {
    size_t size = 0;
    for (const auto& piece : pieces_) size += piece.size();
    for (const auto text : texts) size += text.size();
    std::string request;
    request.reserve(size);
    for (size_t i = 0; i < Slot::count; ++i) {
      request += pieces_[i];
      request += texts[order_[i]];
    }
    request += pieces_[Slot::count];
    return request;
  }

 private:
  // A control character no fact is expected to hold, serialised as \u0001.
  static std::string marker(Slot slot) { return "\x01vntr-member-" + std::to_string(slot); }

  EventFacts facts_;
  bool usable_ = false;
  std::string templateId_;
  std::array<std::string, Slot::count + 1> pieces_;
  std::array<Slot, Slot::count> order_{};
};

// The request text, or nothing after the failure line. The event data arrives serialised and is
// written as it is, so it is not parsed again.
std::optional<std::string> buildRequest(const SyncEventEnvironment& env, const std::string& id,
                                        const std::vector<std::string>& events,
                                        const std::string& eventGroup,
                                        std::string_view eventDataText, TimePoint now) {
  const EventFacts& facts = env.facts();
  // Builds run on the store queue's thread; the layout follows the facts when they change.
  thread_local std::unique_ptr<RequestLayout> layout;
  if (!layout || !layout->renderedFrom(facts)) layout = std::make_unique<RequestLayout>(facts);
  const std::string connectionType = env.connectionType ? env.connectionType() : std::string();
  try {
    if (layout->usable()) {
      // The members' JSON texts, written one after another into one buffer kept by the thread.
      thread_local std::string written;
      written.clear();
      std::array<size_t, RequestLayout::Slot::count + 1> ends{};
      const auto end = [&](RequestLayout::Slot slot) { ends[slot + 1] = written.size(); };
      bool valid = true;
      if (id.empty()) {
        written += layout->templateId();
      } else {
        valid = appendJSONString(written, id);
      }
      end(RequestLayout::id);
      written += '[';
      for (size_t i = 0; valid && i < events.size(); ++i) {
        if (i > 0) written += ',';
        valid = appendJSONString(written, events[i]);
      }
      written += ']';
      end(RequestLayout::events);
      valid = valid && appendJSONString(written, eventGroup);
      end(RequestLayout::eventGroup);
      valid = valid && appendJSONString(written, timestamp(now));
      end(RequestLayout::eventTime);
      end(RequestLayout::eventData);  // comes as it is, not from the buffer
      valid = valid && appendJSONString(written, connectionType);
      end(RequestLayout::connectionType);
      if (!valid) {
        Debug(VantrelLogLevel::error, kSerializationFailed);
        return std::nullopt;
      }
      RequestLayout::Texts texts;
      for (size_t slot = 0; slot < RequestLayout::Slot::count; ++slot) {
        texts[slot] = std::string_view(written).substr(ends[slot], ends[slot + 1] - ends[slot]);
      }
      texts[RequestLayout::eventData] = eventDataText;
      return layout->render(texts);
    }
    VariableMembers members{id.empty() ? std::nullopt : std::optional<std::string>(id),
                            events,
                            eventGroup,
                            timestamp(now),
                            nullptr,
                            connectionType};
    std::string text = fillTemplate(facts, std::move(members)).dump();
    // Every quote inside a string value is escaped, so this member can only be the placeholder.
    static constexpr std::string_view kPlaceholder = R"("eventData":null)";
    const size_t at = text.find(kPlaceholder);
    if (at == std::string::npos) brokenTemplate("eventData placeholder not written");
    text.replace(at + kPlaceholder.size() - 4, 4, eventDataText);
    return text;
  } catch (const json::exception&) {
    // The caller's events or group (or a device fact) are not valid UTF-8.
    Debug(VantrelLogLevel::error, kSerializationFailed);
    return std::nullopt;
  }
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
    if (!request || refuseOversizedRequest(request->size())) return nullptr;
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
