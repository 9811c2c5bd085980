#include "PipeLines.hpp"

#include <unistd.h>

#include <cerrno>

namespace vntr::bench {

bool writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

std::optional<std::string> readLine(int fd, std::string& buffer) {
  for (;;) {
    if (const auto end = buffer.find('\n'); end != std::string::npos) {
      std::string line = buffer.substr(0, end);
      buffer.erase(0, end + 1);
      return line;
    }
    char chunk[4096];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer.append(chunk, static_cast<size_t>(n));
  }
}

}  // namespace vntr::bench
