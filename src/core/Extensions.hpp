#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vntr {

using TimePoint = std::chrono::system_clock::time_point;

/// The wire timestamp: 14 digits "yyyyMMddHHmmss" in GMT, for example 20191104153012.
std::string timestamp(TimePoint date);

/// Seconds since 2001-01-01 00:00:00 UTC, the unit of stored creation times and of expiry.
double referenceDateSeconds(TimePoint date);
TimePoint fromReferenceDateSeconds(double seconds);

/// The bytes of a resource shipped with the library, looked up by its full file name
/// ("SyncEventBase.js"); nothing when there is no such resource. Never logs.
std::optional<std::string> dataFromResourceNamed(std::string_view name);

/// The top-level JSON object of a resource shipped with the library; nothing (after one
/// `error` line) when it is missing, is not JSON or is not an object.
std::optional<nlohmann::json> dictionaryFromJSFileNamed(std::string_view name);

/// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUTF8(std::string_view text);

/// Appends `text` as a JSON string, quoted and escaped exactly as nlohmann::json's dump() writes
/// it; false (and `out` unchanged) when `text` is not valid UTF-8, where dump() would throw.
bool appendJSONString(std::string& out, std::string_view text);

/// True when the JSON text nests arrays and objects at most `limit` deep. A cheap pre-check
/// before parsing untrusted text: brackets inside strings are not counted.
bool jsonNestingWithin(std::string_view text, size_t limit);

/// Loads a template the library cannot work without; a missing one means a broken build, so
/// this writes one fatal line to stderr and aborts.
nlohmann::json requiredTemplate(std::string_view name);

}  // namespace vntr
