#pragma once

#include <cstdint>

namespace vntr::cli {

/// Progress of stored and delivered events on stderr: one line redrawn in place on a terminal,
/// a plain line about once a second otherwise (logs and CI).
class ProgressLine {
 public:
  ProgressLine(bool terminal, int64_t total);
  void update(int64_t stored, int64_t delivered, double seconds);
  /// Draws the final state and ends the line.
  void finish(int64_t stored, int64_t delivered, double seconds);

 private:
  void draw(int64_t stored, int64_t delivered, double seconds);

  const bool terminal_;
  const int64_t total_;
  double lastPlainLine_ = -1;
  int64_t lastStored_ = -1;
  int64_t lastDelivered_ = -1;
};

}  // namespace vntr::cli
