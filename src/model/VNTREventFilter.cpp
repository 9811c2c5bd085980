#include "model/VNTREventFilter.hpp"

#include <cmath>

#include "core/Extensions.hpp"

namespace vntr {

VNTREventFilter::VNTREventFilter(double initialExpiry, std::shared_ptr<const Clock> clock)
    : clock_(std::move(clock)) {
  auto initial = std::make_shared<Snapshot>();
  // NaN or infinity would never compare as stale and would drop every call for good.
  initial->expiry = std::isfinite(initialExpiry) ? initialExpiry : 0;
  snapshot_ = std::move(initial);
}

std::shared_ptr<const VNTREventFilter::Snapshot> VNTREventFilter::snapshot() const {
  std::scoped_lock lock(mutex_);
  return snapshot_;
}

void VNTREventFilter::updateFromResult(const nlohmann::json& records, int64_t expiryMillis) {
  auto next = std::make_shared<Snapshot>();
  if (records.is_array()) {
    for (const auto& record : records) {
      if (!record.is_object()) continue;
      const auto name = record.find("eventName");
      if (name == record.end() || !name->is_string()) continue;
      const auto& eventName = name->get_ref<const std::string&>();
      next->qualifiedEvents.insert(eventName);
      const auto ignoreBatch = record.find("ignoreBatch");
      if (ignoreBatch != record.end() && ignoreBatch->is_boolean()) {
        next->qualifiedEventIgnoreBatch[eventName] = ignoreBatch->get<bool>();
      }
    }
  }
  next->expiry = now() + static_cast<double>(expiryMillis) / 1000;
  std::shared_ptr<const Snapshot> previous = std::move(next);
  {
    std::scoped_lock lock(mutex_);
    snapshot_.swap(previous);
  }
  // The old list is freed here, outside the lock, if no reader still holds it.
}

bool VNTREventFilter::isStale(const Snapshot& snapshot) const { return snapshot.expiry < now(); }

bool VNTREventFilter::admits(const std::vector<std::string>& events) const {
  const auto current = snapshot();
  if (isStale(*current)) return true;
  for (const auto& event : events) {
    if (current->qualifiedEvents.count(event) != 0) return true;
  }
  return false;
}

bool VNTREventFilter::wantsImmediateSend(const std::vector<std::string>& events) const {
  const auto current = snapshot();
  if (isStale(*current)) return false;
  for (const auto& event : events) {
    const auto entry = current->qualifiedEventIgnoreBatch.find(event);
    if (entry != current->qualifiedEventIgnoreBatch.end() && entry->second) return true;
  }
  return false;
}

double VNTREventFilter::now() const { return referenceDateSeconds(clock_->now()); }

}  // namespace vntr
