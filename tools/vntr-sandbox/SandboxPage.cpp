// The sandbox's web page: everything is rendered here, on the server, with every text escaped;
// the page's script only swaps in the freshly rendered fragment, so received event data never
// reaches the browser as markup.

#include <string>

#include "SandboxServer.hpp"

namespace vntr::sandbox {
namespace {

using nlohmann::json;

constexpr size_t kShownText = 300;

// Reads a member that may be missing (renders as empty) without the undefined behaviour of
// operator[] on a const value.
const json& field(const json& object, const char* key) {
  static const json* const kNull = new json();
  if (!object.is_object()) return *kNull;
  const auto it = object.find(key);
  return it == object.end() ? *kNull : *it;
}

std::string text(const json& value) {
  if (value.is_null()) return "";
  if (value.is_string()) return value.get<std::string>();
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Shortens long event data for the table, without cutting a UTF-8 sequence apart.
std::string shortened(std::string s) {
  if (s.size() <= kShownText) return s;
  size_t end = kShownText;
  while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
  s.resize(end);
  return s + "…";
}

std::string cell(const json& value, const char* cls = nullptr) {
  std::string open = cls != nullptr ? std::string("<td class=\"") + cls + "\">" : "<td>";
  return open + escapeHTML(shortened(text(value))) + "</td>";
}

// "20261123054900" (UTC, as requests carry it) -> "2026-11-23 05:49:00 UTC"; anything else as
// it came.
std::string eventTime(const json& value) {
  const std::string raw = text(value);
  const bool digits = raw.size() == 14 && raw.find_first_not_of("0123456789") == std::string::npos;
  if (!digits) return raw;
  return raw.substr(0, 4) + "-" + raw.substr(4, 2) + "-" + raw.substr(6, 2) + " " +
         raw.substr(8, 2) + ":" + raw.substr(10, 2) + ":" + raw.substr(12, 2) + " UTC";
}

// The answer cell: what the entry was, with the error's text when it was one.
std::string answerText(const json& member) {
  const std::string error = text(field(member, "error"));
  return text(field(member, "answer")) + (error.empty() ? "" : ": " + error);
}

std::string eventNames(const json& events) {
  if (!events.is_array()) return text(events);
  std::string joined;
  for (const json& name : events) joined += (joined.empty() ? "" : ", ") + text(name);
  return joined;
}

std::string statsTable(const json& stats) {
  std::string html = "<table class=\"stats\"><tr>";
  for (const char* key : {"batches", "requests", "events", "duplicates", "getEvents", "answered",
                          "bytesReceived", "rejected", "consentChecks"}) {
    html += "<td><b>" + escapeHTML(text(field(stats, key))) + "</b><br>" + key + "</td>";
  }
  return html + "</tr></table>";
}

std::string configLine(const json& config) {
  std::string html = "<p class=\"config\">Tags: <code>" +
                     escapeHTML(text(field(config, "tagsURL"))) + "</code> · batchInterval " +
                     escapeHTML(text(field(config, "batchInterval"))) + " ms · qualifiedEvents ";
  const json& qualified = field(config, "qualifiedEvents");
  html += qualified.is_null() ? "not sent"
                              : escapeHTML(shortened(text(qualified))) + " for " +
                                    escapeHTML(text(field(config, "expireEvents"))) + " ms";
  html += " · needs_consent " + escapeHTML(text(field(config, "needsConsent")));
  std::string faults;
  const json& f = field(config, "faults");
  for (const auto& [key, value] : f.items()) {
    const bool normal = (key == "statusCode" && value == 200) || value == 0 || value == false;
    if (!normal) faults += " " + key + "=" + text(value);
  }
  html += " · faults:" + escapeHTML(faults.empty() ? " none" : faults);
  return html + "</p>";
}

std::string batchSection(const json& batch) {
  const json& members = field(batch, "members");
  std::string html = "<section class=\"batch\"><h3>Batch " + escapeHTML(text(field(batch, "seq"))) +
                     " <small>" + escapeHTML(text(field(batch, "receivedAtISO"))) + " · " +
                     std::to_string(members.size()) + " requests · " +
                     escapeHTML(text(field(batch, "bytes"))) + " bytes · answer " +
                     escapeHTML(text(field(batch, "delivery")));
  if (field(batch, "delivery") != "closed")
    html += ", HTTP " + escapeHTML(text(field(batch, "status")));
  html +=
      "</small></h3><table><tr><th>method</th><th>id</th><th>answer</th><th>events</th>"
      "<th>eventGroup</th><th>eventData</th><th>eventTime</th><th>siteId</th></tr>";
  for (const json& m : members) {
    const bool repeat = !field(m, "arrival").is_null() && field(m, "arrival") != 1;
    html += repeat ? "<tr class=\"dup\">" : "<tr>";
    html += cell(!field(m, "invalid").is_null() ? field(m, "invalid") : field(m, "method"));
    std::string id = text(field(m, "id"));
    if (repeat) id += " (arrival " + text(field(m, "arrival")) + ")";
    html += cell(id, "id") + cell(answerText(m), "answer");
    html += cell(eventNames(field(m, "events"))) + cell(field(m, "eventGroup"));
    html += cell(field(m, "eventData"), "data") + cell(eventTime(field(m, "eventTime")));
    html += cell(field(m, "siteId"));
    html += "</tr>";
  }
  return html + "</table></section>";
}

constexpr const char* kHead = R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>vntr sandbox</title>
<style>
body{font:14px/1.4 system-ui,sans-serif;margin:0;background:#f6f7f9;color:#1d2330}
header{background:#1d2330;color:#fff;padding:10px 20px;display:flex;gap:16px;align-items:baseline}
header h1{font-size:18px;margin:0}
#status{font-size:12px}#status.down{color:#ff8a80}#status.live{color:#9be59b}
main{padding:10px 20px}
table{border-collapse:collapse;background:#fff;width:100%;margin:6px 0 14px}
td,th{border:1px solid #d8dce3;padding:3px 6px;text-align:left;vertical-align:top}
th{background:#eceff4;font-weight:600}
table.stats{width:auto}table.stats td{text-align:center;padding:6px 14px;font-size:12px}
table.stats b{font-size:18px}
td.id,td.data,code{font-family:ui-monospace,monospace;font-size:12px;word-break:break-all}
tr.dup{background:#fff6d6}td.answer{white-space:nowrap}
h3{font-size:14px;margin:14px 0 2px}h3 small{font-weight:400;color:#5b6472}
.config{color:#39414f}.empty{color:#5b6472;font-style:italic}
</style></head><body>
<header><h1>vntr sandbox</h1><span id="status" class="live">live</span></header>
<main id="content">)";

constexpr const char* kTail = R"(</main>
<script>
(function () {
  var content = document.getElementById('content');
  var status = document.getElementById('status');
  var last = null;
  function tick() {
    fetch('/fragment', {cache: 'no-store'})
      .then(function (r) { if (!r.ok) throw new Error('HTTP ' + r.status); return r.text(); })
      .then(function (html) {
        if (html !== last) { last = html; content.innerHTML = html; }
        status.textContent = 'live'; status.className = 'live';
      })
      .catch(function () { status.textContent = 'server not reachable'; status.className = 'down'; })
      .then(function () { setTimeout(tick, 1000); });
  }
  setTimeout(tick, 1000);
})();
</script></body></html>
)";

}  // namespace

std::string escapeHTML(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (const char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string renderFragment(const json& stats, const json& config, const json& batches) {
  std::string html = statsTable(stats) + configLine(config) + "<h2>Recent batches</h2>";
  if (batches.empty()) {
    html += "<p class=\"empty\">No batches yet. Point your app's server URL at <code>" +
            escapeHTML(text(field(config, "tagsURL"))) + "</code>.</p>";
  }
  for (auto it = batches.rbegin(); it != batches.rend(); ++it) html += batchSection(*it);
  return html;
}

std::string renderPage(const json& stats, const json& config, const json& batches) {
  return kHead + renderFragment(stats, config, batches) + kTail;
}

}  // namespace vntr::sandbox
