#pragma once

#include <memory>
#include <vntr/Executor.hpp>

namespace vntr {

/// The process's main queue: log delivery, the batch timer and the batch cycle run here.
/// By default a library thread named "VNTRMain"; created on first use and never destroyed.
Executor& mainQueue();

/// Installs the host's own main queue. Only effective before the main queue is first used;
/// returns false (changing nothing) afterwards or for a null executor.
bool installMainQueue(std::shared_ptr<Executor> executor);

}  // namespace vntr
