#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace vntr::test {

/// How a scenario run in a network namespace of its own ended.
struct NamespaceOutcome {
  enum class Kind { passed, failed, skipped } kind = Kind::failed;
  std::string message;  ///< what went wrong, or why the namespace could not be made
};

/// Runs `scenario` in a forked child inside a fresh network namespace (and, where possible, a
/// private mount namespace with its own sysfs, so /sys/class/net shows that namespace). The host's
/// interfaces and routes are never touched: the namespace disappears with the child.
///
/// The scenario returns "" on success or what went wrong; that text reaches the parent through a
/// pipe. Without the right to create a namespace the outcome is `skipped` with the reason. A child
/// that runs longer than `timeout` is killed and reported as failed. Call it before the parent
/// process has started threads of its own: only the forking thread exists in the child.
NamespaceOutcome runInNetworkNamespace(const std::function<std::string()>& scenario,
                                       std::chrono::seconds timeout = std::chrono::seconds(120));

/// Runs `ip` with `args` (its output goes nowhere); true when it exited with 0.
bool ip(const std::vector<std::string>& args);

/// Runs each `ip` command in order; "" when all succeeded, else which one failed.
std::string ipAll(const std::vector<std::vector<std::string>>& commands);

}  // namespace vntr::test

/// Runs a scenario through runInNetworkNamespace and turns its outcome into a gtest result:
/// skipped with the reason when no namespace could be made, failed with the child's message.
#define VNTR_RUN_IN_NETWORK_NAMESPACE(...)                                   \
  do {                                                                       \
    const ::vntr::test::NamespaceOutcome vntrOutcome =                       \
        ::vntr::test::runInNetworkNamespace(__VA_ARGS__);                    \
    if (vntrOutcome.kind == ::vntr::test::NamespaceOutcome::Kind::skipped) { \
      GTEST_SKIP() << vntrOutcome.message;                                   \
    }                                                                        \
    if (vntrOutcome.kind != ::vntr::test::NamespaceOutcome::Kind::passed) {  \
      ADD_FAILURE() << "in the network namespace: " << vntrOutcome.message;  \
    }                                                                        \
  } while (false)

/// Inside a scenario: returns the message of a step that went wrong.
#define VNTR_STEP(expression)                         \
  do {                                                \
    std::string vntrStepError = (expression);         \
    if (!vntrStepError.empty()) return vntrStepError; \
  } while (false)
