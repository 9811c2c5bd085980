#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "transport/VNTRRemoteResponse.hpp"

namespace vntr::detail {

/// The entries of a batch answer, in order; an unusable entry as nothing.
using AnswerEntries = std::vector<std::optional<VNTRRemoteResponse>>;

/// Reads a batch answer in one pass when it is an array of objects written in plain JSON: strings
/// of printable ASCII without escapes, integers of up to 18 digits, true, false and null, nested
/// no deeper than `maxDepth`. That is what servers send, and reading it costs a fraction of the
/// general reader. The entries are exactly what the general reader gives for the same text.
/// Nothing when the body is anything else, valid or not: the general reader then reads it and
/// says what is wrong.
std::optional<AnswerEntries> scanPlainAnswer(std::string_view body, size_t maxDepth);

}  // namespace vntr::detail
