#include "core/VNTRStatistic.hpp"

#include <cxxabi.h>

#include <exception>

#include "core/HostCallbacks.hpp"
#include "core/VNTRDebug.hpp"

namespace vntr {

std::optional<VNTRStatistic> VNTRStatistic::fromRawValue(int64_t rawValue) {
  if (rawValue < batchRequestSent || rawValue > eventCreated) return std::nullopt;
  return VNTRStatistic(static_cast<Value>(rawValue));
}

const std::array<VNTRStatistic, 10>& VNTRStatistic::allValues() {
  static constexpr std::array<VNTRStatistic, 10> values{
      batchRequestSent,     eventsSent,     responseReceived,   requestFailed,        responseEmpty,
      responseDataReceived, responseParsed, responseUnparsable, eventResultProcessed, eventCreated};
  return values;
}

std::string_view VNTRStatistic::description() const {
  switch (value_) {
    case batchRequestSent:
      return "batchRequestSent";
    case eventsSent:
      return "eventsSent";
    case responseReceived:
      return "responseReceived";
    case requestFailed:
      return "requestFailed";
    case responseEmpty:
      return "responseEmpty";
    case responseDataReceived:
      return "responseDataReceived";
    case responseParsed:
      return "responseParsed";
    case responseUnparsable:
      return "responseUnparsable";
    case eventResultProcessed:
      return "eventResultProcessed";
    case eventCreated:
      return "eventCreated";
  }
  return "unknown";
}

void reportStatistic(VNTRStatistic statistic, int64_t adjustment) {
  try {
    detail::hostCallbacks().delegate.invoke([&](VNTRTagManagerDelegate& delegate) {
      delegate.notifyForStatistic(statistic.rawValue(), adjustment);
    });
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& e) {
    Debug(VantrelLogLevel::error,
          std::string("Delegate threw while notified of a statistic: ") + e.what());
  } catch (...) {
    Debug(VantrelLogLevel::error, "Delegate threw while notified of a statistic");
  }
}

}  // namespace vntr
