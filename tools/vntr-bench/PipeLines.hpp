#pragma once

#include <optional>
#include <string>

namespace vntr::bench {

// The line protocol between vntr-bench and its server program: one command line down, one JSON
// answer line up.

/// Writes all of `text` to `fd`; false when the other end is gone.
bool writeAll(int fd, const std::string& text);
/// One line from `fd` (without its newline), using `buffer` for what was read past it; nothing
/// at end of file or on an error.
std::optional<std::string> readLine(int fd, std::string& buffer);

}  // namespace vntr::bench
