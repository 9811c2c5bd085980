#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vntr {

// Paths are plain text here and files are examined with POSIX calls, not std::filesystem: a host
// that does not use std::filesystem itself then never maps that part of libstdc++ (four 64 KiB
// windows of it stay out of the process).

/// `directory` and `name` joined by one slash; `name` alone when `directory` is empty.
std::string joinPath(std::string_view directory, std::string_view name);

/// The path without its last component, as std::filesystem::path::parent_path gives it:
/// "a/b" -> "a", "/a" -> "/", "a" -> "", "a/b/" -> "a/b".
std::string parentPath(std::string_view path);

/// The last component: "a/b" -> "b", "a/b/" -> "".
std::string_view lastPathComponent(std::string_view path);

/// Whether `path` is a directory, following symbolic links.
bool isDirectory(const std::string& path);

/// Whether `path` exists and can be examined, following symbolic links.
bool pathExists(const std::string& path);

/// Whether `path` certainly does not exist (a missing entry, or a parent that is not a
/// directory); false when it exists or cannot be examined.
bool isMissing(const std::string& path);

/// The whole content of `file`, or nothing when it cannot be opened or read, is not a regular
/// file, or holds more than `maxBytes` bytes (so a huge or endless file is never slurped).
std::optional<std::string> readFileBounded(const std::string& file, size_t maxBytes);

/// Creates `directory` and any missing parents; each directory created here gets mode 0700
/// (existing ones are left as they are). Returns nothing on success, else the reason.
std::optional<std::string> createPrivateDirectories(const std::string& directory);

/// Replaces `file` with `contents` so that a reader (or a crash) sees either the old or the new
/// file, never a mix: writes a temporary file with mode 0600 in the same directory, flushes it to
/// disk, renames it over `file` and flushes the directory. Missing parent directories are created
/// with mode 0700. Returns nothing on success, else the reason; the temporary file is removed on
/// failure and `file` is then left untouched.
std::optional<std::string> writeFileAtomically(const std::string& file, std::string_view contents);

}  // namespace vntr
