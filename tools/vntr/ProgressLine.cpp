#include "ProgressLine.hpp"

#include <algorithm>
#include <cstdio>
#include <string>

#include "CliSupport.hpp"

namespace vntr::cli {

namespace {
constexpr int kBarWidth = 32;
}

ProgressLine::ProgressLine(bool terminal, int64_t total)
    : terminal_(terminal), total_(std::max<int64_t>(total, 1)) {}

void ProgressLine::update(int64_t stored, int64_t delivered, double seconds) {
  if (!terminal_) {
    if (lastPlainLine_ >= 0 && seconds - lastPlainLine_ < 1.0) return;
    lastPlainLine_ = seconds;
  }
  draw(stored, delivered, seconds);
}

void ProgressLine::finish(int64_t stored, int64_t delivered, double seconds) {
  // A plain line already showing these numbers is not repeated.
  if (terminal_ || stored != lastStored_ || delivered != lastDelivered_) {
    draw(stored, delivered, seconds);
  }
  if (terminal_) std::fputc('\n', stderr);
  std::fflush(stderr);
}

void ProgressLine::draw(int64_t stored, int64_t delivered, double seconds) {
  lastStored_ = stored;
  lastDelivered_ = delivered;
  // '#' delivered, '-' stored and waiting for its batch, ' ' not stored yet.
  auto cells = [this](int64_t n) {
    return static_cast<int>(std::clamp<int64_t>(n, 0, total_) * kBarWidth / total_);
  };
  const int done = cells(delivered);
  const int waiting = std::max(cells(stored) - done, 0);
  std::string bar(static_cast<size_t>(done), '#');
  bar.append(static_cast<size_t>(waiting), '-');
  bar.resize(kBarWidth, ' ');
  std::fprintf(stderr, "%s[%s] stored %s  delivered %s of %s  %.1f s%s", terminal_ ? "\r" : "",
               bar.c_str(), withThousands(stored).c_str(), withThousands(delivered).c_str(),
               withThousands(total_).c_str(), seconds, terminal_ ? "\x1b[K" : "\n");
  std::fflush(stderr);
}

}  // namespace vntr::cli
