// The text of one event request: the template "SyncEventBase.js" filled with the device facts
// and the caller's arguments.
#include "model/SyncEventRequest.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "core/Extensions.hpp"
#include "core/VNTRDebug.hpp"
#include "model/VNTRSyncEvent.hpp"

namespace vntr {
namespace {

using nlohmann::json;

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
class RequestLayout final : public store::RequestWriter {
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

  // Bytes of the text made from `parts`.
  size_t size(std::string_view parts) const {
    size_t size = parts.size() - Slot::count * sizeof(uint32_t);
    for (const auto& piece : pieces_) size += piece.size();
    return size;
  }

  void write(std::string_view parts, std::string& out) const override {
    Texts texts;
    for (auto& text : texts) {
      uint32_t length = 0;
      std::memcpy(&length, parts.data(), sizeof length);
      text = parts.substr(sizeof length, length);
      parts.remove_prefix(sizeof length + length);
    }
    out.reserve(out.size() + size(parts));
    for (size_t i = 0; i < Slot::count; ++i) {
      out += pieces_[i];
      out += texts[order_[i]];
    }
    out += pieces_[Slot::count];
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

// The members' JSON texts in slot order, each after its length: what RequestLayout::write
// makes the text from. False when a piece is not valid UTF-8.
bool writeParts(std::string& parts, const RequestLayout& layout, const std::string& id,
                const std::vector<std::string>& events, const std::string& eventGroup,
                std::string_view eventDataText, TimePoint now, const std::string& connectionType) {
  bool valid = true;
  size_t at = 0;
  const auto open = [&] {
    at = parts.size();
    parts.append(sizeof(uint32_t), '\0');
  };
  const auto close = [&] {
    const auto length = static_cast<uint32_t>(parts.size() - at - sizeof(uint32_t));
    std::memcpy(parts.data() + at, &length, sizeof length);
  };
  open();
  if (id.empty()) {
    parts += layout.templateId();
  } else {
    valid = appendJSONString(parts, id);
  }
  close();
  open();
  parts += '[';
  for (size_t i = 0; valid && i < events.size(); ++i) {
    if (i > 0) parts += ',';
    valid = appendJSONString(parts, events[i]);
  }
  parts += ']';
  close();
  open();
  valid = valid && appendJSONString(parts, eventGroup);
  close();
  open();
  valid = valid && appendJSONString(parts, timestamp(now));
  close();
  open();
  parts += eventDataText;
  close();
  open();
  valid = valid && appendJSONString(parts, connectionType);
  close();
  return valid;
}

}  // namespace

std::optional<SyncEventRequest> buildSyncEventRequest(
    const SyncEventEnvironment& env, const std::string& id, const std::vector<std::string>& events,
    const std::string& eventGroup, std::string_view eventDataText, TimePoint now, bool asParts) {
  const EventFacts& facts = env.facts();
  // Builds run on the store queue's thread; the layout follows the facts when they change (rows
  // still kept as parts hold on to the one they were made with).
  thread_local std::shared_ptr<const RequestLayout> layout;
  if (!layout || !layout->renderedFrom(facts)) layout = std::make_shared<RequestLayout>(facts);
  const std::string connectionType = env.connectionType ? env.connectionType() : std::string();
  try {
    if (layout->usable()) {
      std::string parts;
      parts.reserve(RequestLayout::Slot::count * sizeof(uint32_t) + id.size() + eventGroup.size() +
                    eventDataText.size() + 64);
      if (!writeParts(parts, *layout, id, events, eventGroup, eventDataText, now, connectionType)) {
        Debug(VantrelLogLevel::error, kSerializationFailed);
        return std::nullopt;
      }
      const size_t size = layout->size(parts);
      if (asParts) return SyncEventRequest{std::move(parts), layout, size};
      std::string text;
      layout->write(parts, text);
      return SyncEventRequest{std::move(text), nullptr, size};
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
    const size_t size = text.size();
    return SyncEventRequest{std::move(text), nullptr, size};
  } catch (const json::exception&) {
    // The caller's events or group (or a device fact) are not valid UTF-8.
    Debug(VantrelLogLevel::error, kSerializationFailed);
    return std::nullopt;
  }
}

}  // namespace vntr
