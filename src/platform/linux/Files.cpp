#include "platform/linux/Files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace vntr {

namespace {

std::string errnoText(const std::string& what, int error) {
  char buffer[256];
  return what + ": " + ::strerror_r(error, buffer, sizeof buffer);  // GNU: returns the text
}

/// Owns a file descriptor; closes it on scope exit unless released.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

std::string joinPath(std::string_view directory, std::string_view name) {
  std::string out(directory);
  if (!out.empty() && out.back() != '/') out += '/';
  out += name;
  return out;
}

std::string parentPath(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  const size_t end = path.find_last_not_of('/', slash);
  if (end == std::string_view::npos) return "/";  // only the root is left
  return std::string(path.substr(0, end + 1));
}

std::string_view lastPathComponent(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool pathExists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

bool isMissing(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

std::optional<std::string> readFileBounded(const std::string& file, size_t maxBytes) {
  FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0) return std::nullopt;
  struct stat info {};
  // Only regular files: a FIFO or a device would block or never end.
  if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::string content;
  char buffer[16384];
  while (true) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    if (content.size() + static_cast<size_t>(n) > maxBytes) return std::nullopt;
    content.append(buffer, static_cast<size_t>(n));
  }
  return content;
}

std::optional<std::string> createPrivateDirectories(const std::string& directory) {
  if (directory.empty()) return std::string("empty directory path");
  if (isDirectory(directory)) return std::nullopt;
  const auto parent = parentPath(directory);
  if (!parent.empty() && parent != directory) {
    if (auto error = createPrivateDirectories(parent)) return error;
  }
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return errnoText("cannot create " + directory, errno);
  }
  if (!isDirectory(directory)) return "not a directory: " + directory;
  return std::nullopt;
}

std::optional<std::string> writeFileAtomically(const std::string& file, std::string_view contents) {
  const auto parent = parentPath(file);
  const std::string directory = parent.empty() ? "." : parent;
  if (auto error = createPrivateDirectories(directory)) return error;

  // Appended piece by piece: GCC 12 at -O3 wrongly reports `"." + std::string` as an
  // overlapping copy (-Wrestrict), which breaks the release build with warnings as errors.
  std::string tempName = ".";
  tempName += lastPathComponent(file);
  tempName += ".XXXXXX";
  const std::string pattern = joinPath(directory, tempName);
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  FileDescriptor fd(::mkostemp(name.data(), O_CLOEXEC));
  if (fd.get() < 0) return errnoText("cannot create a temporary file in " + directory, errno);
  const std::string temporary(name.data());

  auto fail = [&temporary](const std::string& what) {
    const int error = errno;
    ::unlink(temporary.c_str());
    return errnoText(what, error);
  };
  if (::fchmod(fd.get(), 0600) != 0) return fail("cannot set the mode of " + temporary);
  if (!writeAll(fd.get(), contents)) return fail("cannot write " + temporary);
  if (::fsync(fd.get()) != 0) return fail("cannot flush " + temporary);
  if (::close(fd.release()) != 0) return fail("cannot close " + temporary);
  if (::rename(temporary.c_str(), file.c_str()) != 0) return fail("cannot replace " + file);

  // The rename is durable only once the directory entry itself reached the disk.
  FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
  return std::nullopt;
}

}  // namespace vntr
