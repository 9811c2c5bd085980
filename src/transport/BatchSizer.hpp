#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vntr {

/// How large the next batch may be. Its body stays under kMaxBatchBytes, so large requests go
/// in smaller batches; and after a server refused a batch as too large (HTTP 413) the next one
/// carries half as many requests, down to one. Each accepted batch lets the count grow back,
/// doubling up to the maximum, so a server with a lower limit is not hit with 413 every time.
///
/// The count is a lone atomic: written when a reply is handled, read when a batch is built.
class BatchSizer {
 public:
  /// Tag servers and the proxies in front of them commonly refuse request bodies above 1 to
  /// 2 MB; 2 MB still holds the largest request the intake accepts together with the rest of a
  /// batch.
  static constexpr size_t kMaxBatchBytes = 2'000'000;

  explicit BatchSizer(int64_t maxRequests) : maxRequests_(maxRequests), limit_(maxRequests) {}

  /// Stored requests the next batch may take.
  int64_t requestLimit() const { return limit_.load(); }
  /// How many of the stored requests with these body sizes (in order) go into one batch whose
  /// other members take `otherBytes`: as many as fit under kMaxBatchBytes, at least one.
  static size_t fitting(const std::vector<size_t>& sizes, size_t otherBytes);
  /// A batch of `requests` stored requests was refused as too large. True when it held a single
  /// request: that one can never be delivered.
  bool refused(int64_t requests);
  /// A batch was answered: the limit grows back towards the maximum.
  void accepted();

 private:
  const int64_t maxRequests_;
  std::atomic<int64_t> limit_;
};

}  // namespace vntr
