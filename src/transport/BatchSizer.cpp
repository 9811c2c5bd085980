#include "transport/BatchSizer.hpp"

#include <algorithm>

namespace vntr {

size_t BatchSizer::fitting(const std::vector<size_t>& sizes, size_t otherBytes) {
  // "[", "]" and a comma before every member but the first.
  size_t total = 2 + otherBytes;
  size_t count = 0;
  for (const size_t size : sizes) {
    total += size + 1;
    if (count > 0 && total > kMaxBatchBytes) break;
    ++count;
  }
  return count;
}

bool BatchSizer::refused(int64_t requests) {
  limit_.store(std::max<int64_t>(1, requests / 2));
  return requests <= 1;
}

void BatchSizer::accepted() { limit_.store(std::min(maxRequests_, limit_.load() * 2)); }

}  // namespace vntr
