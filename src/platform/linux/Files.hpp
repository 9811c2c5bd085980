#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace vntr {

/// The whole content of `file`, or nothing when it cannot be opened or read, is not a regular
/// file, or holds more than `maxBytes` bytes (so a huge or endless file is never slurped).
std::optional<std::string> readFileBounded(const std::filesystem::path& file, size_t maxBytes);

/// Creates `directory` and any missing parents; each directory created here gets mode 0700
/// (existing ones are left as they are). Returns nothing on success, else the reason.
std::optional<std::string> createPrivateDirectories(const std::filesystem::path& directory);

/// Replaces `file` with `contents` so that a reader (or a crash) sees either the old or the new
/// file, never a mix: writes a temporary file with mode 0600 in the same directory, flushes it to
/// disk, renames it over `file` and flushes the directory. Missing parent directories are created
/// with mode 0700. Returns nothing on success, else the reason; the temporary file is removed on
/// failure and `file` is then left untouched.
std::optional<std::string> writeFileAtomically(const std::filesystem::path& file,
                                               std::string_view contents);

}  // namespace vntr
