#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vntr/Executor.hpp>

#include "model/VNTRMethodProtocol.hpp"
#include "transport/BatchCycleClock.hpp"
#include "transport/BatchOutcome.hpp"
#include "transport/BatchSizer.hpp"
#include "transport/HTTPClientProtocol.hpp"
#include "transport/RetryBackoff.hpp"
#include "transport/VNTRBatchDispatch.hpp"
#include "transport/VNTRTimer.hpp"

namespace vntr {

class BatchLock;
class EventDataManager;
class VNTRReachability;
class VNTRSyncEvent;

/// The batching sender. Decides when a batch goes out, takes up to 80 of the newest queued
/// event requests plus one get-events request, posts them as one JSON array, hands each answer
/// to the request it belongs to, and arms its timer for the next batch. Never runs two batches
/// at once.
///
/// Threads: `fire()`, `fireNow()` and `setBatchInterval()` may be called from any thread; the
/// timer decision, the timer and the batch cycle run on the main queue; the reply is handled on
/// the transport's thread, with result dispatch inside the store queue's synchronous perform.
/// The fields below are atomics or mutex-guarded, since they are touched from all of these.
class VNTRRequester : public std::enable_shared_from_this<VNTRRequester> {
 public:
  static constexpr int64_t maxEventsPerBatch = 80;
  static constexpr double minimumBatchInterval = 0.1;
  static constexpr double maximumBatchInterval = 120.0;

  using GetEventsFactory = std::function<std::shared_ptr<VNTRMethodProtocol>()>;
  using ServerURL = std::function<std::string()>;
  using Switch = std::function<bool()>;

  /// `makeGetEvents` runs on the store queue and may yield nothing (the batch then goes without
  /// it); `serverURL` is read at each batch; `retryBackoff` after each reply (empty: off), with
  /// `random` as the backoff's jitter source (empty: a seeded generator). `batchLock`, when
  /// given, is held from the dequeue until the reply is handled, so processes sharing the queue
  /// file never send at once.
  VNTRRequester(Executor& mainQueue, EventDataManager& store, VNTRReachability& reachability,
                std::shared_ptr<HTTPClientProtocol> httpClient, GetEventsFactory makeGetEvents,
                ServerURL serverURL, Switch retryBackoff = {}, RetryBackoff::Random random = {},
                std::shared_ptr<BatchLock> batchLock = nullptr);

  /// Asks for the next batch: arms the timer with `nextBatchInterval` unless a timer is armed
  /// (or stale) or a batch is in flight. Returns at once.
  void fire();
  /// Asks for a batch as soon as possible: the fire-now rule.
  void fireNow();
  /// Sets the regular pause from a count of milliseconds, clamped to 0.1 ... 120 s; applies
  /// from the timer after next.
  void setBatchInterval(int64_t milliseconds);
  /// One batch cycle; run by the timer on the main queue.
  void performRemoteRequests();

  std::atomic<double> batchIntervalSeconds{2.0};
  std::atomic<double> nextBatchInterval{2.0};
  std::atomic<bool> isRequesting{false};

  std::shared_ptr<VNTRTimer> batchTimer() const;
  std::shared_ptr<HTTPClientProtocol> httpClient() const;
  /// Called (on the thread that ends it) after every batch cycle that has ended, sent or not.
  void setBatchEndedObserver(std::function<void()> observer);
  /// Installs another transport (for example `HTTPMockClient`) for the following batches.
  void setHttpClient(std::shared_ptr<HTTPClientProtocol> client);
  /// For the owner's teardown: a reply that arrives afterwards touches nothing, as the store and
  /// reachability may already be gone (its requests stay stored for a later launch). Any thread.
  void detach();
  /// The time this side of the network spent in the batch cycles so far.
  BatchCycleClock::Totals cycleTotals() const { return cycleClock_.totals(); }

 private:
  using PendingTable = detail::PendingTable;
  std::atomic<bool> detached_{false};
  /// What the reply handling needs to know about the batch it answers.
  struct SentBatch {
    int64_t requests = 0;
    std::shared_ptr<VNTRSyncEvent> only;  // the stored request, when there was just one
    bool lockRefused = false;             // another process is sending this queue
  };

  void fireOnMainQueue();
  void endBatch();
  void releaseBatchLock() const;
  std::string buildBody(PendingTable& pending, SentBatch& sent);
  void handleReply(PendingTable& pending, const SentBatch& sent, std::optional<std::string> data,
                   std::optional<HTTPURLResponse> response, std::optional<HTTPError> error);
  /// Sizing, dropping a request the server never accepts, and backoff; before `fire()`.
  void settle(const BatchOutcome& outcome, const SentBatch& sent);

  Executor& mainQueue_;
  EventDataManager& store_;
  VNTRReachability& reachability_;
  GetEventsFactory makeGetEvents_;
  ServerURL serverURL_;
  BatchCycleClock cycleClock_;
  Switch retryBackoff_;
  BatchSizer sizer_{maxEventsPerBatch};
  RetryBackoff backoff_;
  // Backoff's wait for the next timer; taken (and cleared) when that timer is armed.
  std::atomic<double> backoffDelay_{0.0};
  // A timer armed with a backoff wait has not come due yet: fire-now leaves it alone.
  std::atomic<bool> holdingForBackoff_{false};
  const std::shared_ptr<BatchLock> batchLock_;

  mutable std::mutex mutex_;
  std::shared_ptr<VNTRTimer> batchTimer_;                    // guarded by mutex_
  std::shared_ptr<HTTPClientProtocol> httpClient_;           // guarded by mutex_
  std::shared_ptr<const std::function<void()>> batchEnded_;  // guarded by mutex_
};

}  // namespace vntr
