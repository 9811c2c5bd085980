#pragma once

namespace vntr::cli {

struct DemoOptions {
  int events = 2000;
  int threads = 1;
};

/// Runs the demo; returns the process exit status.
int runDemo(const DemoOptions& options);

}  // namespace vntr::cli
