#include "transport/VNTRRequester.hpp"

#include <algorithm>
#include <vector>

#include "core/VNTRDebug.hpp"
#include "core/VNTRStatistic.hpp"
#include "model/VNTRSyncEvent.hpp"
#include "store/EventDataManager.hpp"
#include "transport/BatchLock.hpp"
#include "transport/VNTRReachability.hpp"
#include "transport/VNTRRequestResponse.hpp"

namespace vntr {

VNTRRequester::VNTRRequester(Executor& mainQueue, EventDataManager& store,
                             VNTRReachability& reachability,
                             std::shared_ptr<HTTPClientProtocol> httpClient,
                             GetEventsFactory makeGetEvents, ServerURL serverURL,
                             Switch retryBackoff, RetryBackoff::Random random,
                             std::shared_ptr<BatchLock> batchLock)
    : mainQueue_(mainQueue),
      store_(store),
      reachability_(reachability),
      makeGetEvents_(std::move(makeGetEvents)),
      serverURL_(std::move(serverURL)),
      retryBackoff_(std::move(retryBackoff)),
      backoff_(std::move(random)),
      batchLock_(std::move(batchLock)),
      batchTimer_(std::make_shared<VNTRTimer>()),
      httpClient_(std::move(httpClient)) {}

std::shared_ptr<VNTRTimer> VNTRRequester::batchTimer() const {
  std::scoped_lock lock(mutex_);
  return batchTimer_;
}

std::shared_ptr<HTTPClientProtocol> VNTRRequester::httpClient() const {
  std::scoped_lock lock(mutex_);
  return httpClient_;
}

void VNTRRequester::setHttpClient(std::shared_ptr<HTTPClientProtocol> client) {
  std::scoped_lock lock(mutex_);
  httpClient_.swap(client);
}

void VNTRRequester::setBatchEndedObserver(std::function<void()> observer) {
  auto next = std::make_shared<const std::function<void()>>(std::move(observer));
  std::scoped_lock lock(mutex_);
  batchEnded_.swap(next);
}

void VNTRRequester::releaseBatchLock() const {
  if (batchLock_) batchLock_->release();
}

void VNTRRequester::endBatch() {
  isRequesting.store(false);
  std::shared_ptr<const std::function<void()>> observer;
  {
    std::scoped_lock lock(mutex_);
    observer = batchEnded_;
  }
  if (observer && *observer) (*observer)();
}

void VNTRRequester::fire() {
  // The main queue would drop this request anyway while a timer is armed (or stale) or a batch
  // is in flight; skipping the hop spares the caller's thread and the main queue a wake-up per
  // event. A batch in flight calls fire() itself when it ends.
  if (isRequesting.load() || batchTimer()->isValid()) return;
  mainQueue_.post([self = shared_from_this()] { self->fireOnMainQueue(); });
}

void VNTRRequester::fireOnMainQueue() {
  // Only the main queue arms timers, so two fire() calls never arm two. A stale timer (expired
  // while offline, block still set) keeps fire() idle until the fire-now rule clears it.
  if (batchTimer()->isValid() || isRequesting.load()) return;
  // A backoff wait replaces the interval: a fire-now request that came meanwhile does not
  // shorten it.
  const double backoff = backoffDelay_.exchange(0.0);
  const double delay = backoff > 0.0 ? backoff : nextBatchInterval.load();
  holdingForBackoff_.store(backoff > 0.0);
  std::weak_ptr<VNTRRequester> weak = weak_from_this();
  auto timer = VNTRTimer::make(mainQueue_, delay, [weak] {
    if (auto self = weak.lock()) self->performRemoteRequests();
  });
  {
    std::scoped_lock lock(mutex_);
    batchTimer_ = std::move(timer);
  }
  cycleClock_.timerArmed();
  nextBatchInterval.store(batchIntervalSeconds.load());
}

void VNTRRequester::fireNow() {
  nextBatchInterval.store(0.0);
  // A batch in flight calls fire() when it ends, and that timer then uses delay 0.
  if (isRequesting.load()) return;
  // A server that is failing gets its backoff wait, whoever asks for a batch; the batch after
  // the wait uses delay 0.
  if (holdingForBackoff_.load()) return;
  batchTimer()->invalidate();
  fire();
}

void VNTRRequester::setBatchInterval(int64_t milliseconds) {
  const double seconds = static_cast<double>(milliseconds) / 1000.0;
  batchIntervalSeconds.store(std::clamp(seconds, minimumBatchInterval, maximumBatchInterval));
}

void VNTRRequester::performRemoteRequests() {
  holdingForBackoff_.store(false);  // the timer came due
  // Without a transport (taken away for teardown or shutdown) no batch starts.
  auto client = httpClient();
  if (!client) return;
  if (!reachability_.isReachable()) return;  // Stale: the timer keeps its block
  const int64_t firedAt = cycleClock_.timerFired();
  isRequesting.store(true);
  batchTimer()->invalidate();

  auto pending = std::make_shared<PendingTable>();
  SentBatch sent;
  std::string body = buildBody(*pending, sent);
  // Another process has a batch in flight on this queue file: try again at the next timer.
  if (sent.lockRefused) {
    endBatch();
    fire();
    return;
  }
  if (sent.requests == 0) {
    endBatch();
    return;
  }
  reportStatistic(VNTRStatistic::batchRequestSent, 1);
  reportStatistic(VNTRStatistic::eventsSent, sent.requests);
  client->post(std::move(body), serverURL_(),
               [self = shared_from_this(), pending, sent](std::optional<std::string> data,
                                                          std::optional<HTTPURLResponse> response,
                                                          std::optional<HTTPError> error) {
                 self->handleReply(*pending, sent, std::move(data), std::move(response),
                                   std::move(error));
               });
  cycleClock_.requestLeft(firedAt);
}

std::string VNTRRequester::buildBody(PendingTable& pending, SentBatch& sent) {
  std::string body;
  // Lock, dequeue, build and tell untracked requests they get no answer, all in one visit to
  // the store queue: the requests are store objects and are only touched there. The lock is
  // taken there too, behind the commit that releases it after the previous batch's answers.
  store_.performAndWait([&] {
    if (batchLock_ && !batchLock_->tryAcquire()) {
      sent.lockRefused = true;
      return;
    }
    auto events = store_.deQueue(sizer_.requestLimit());
    if (events.empty()) {
      releaseBatchLock();
      return;
    }
    std::vector<std::shared_ptr<VNTRMethodProtocol>> methods;
    if (auto getEvents = makeGetEvents_ ? makeGetEvents_() : nullptr) {
      methods.push_back(std::move(getEvents));
    }
    // Requests beyond the byte cap stay stored for the next batch.
    std::vector<size_t> sizes;
    for (const auto& event : events) sizes.push_back(event->jsonData().size());
    events.resize(BatchSizer::fitting(sizes, methods.empty() ? 0 : methods[0]->jsonData().size()));
    sent.requests = static_cast<int64_t>(events.size());
    if (events.size() == 1) sent.only = events.front();
    methods.insert(methods.begin(), events.begin(), events.end());
    size_t size = 2;
    for (const auto& method : methods) size += method->jsonData().size() + 1;
    body.reserve(size);
    body += '[';
    for (size_t i = 0; i < methods.size(); ++i) {
      if (i > 0) body += ',';
      body += methods[i]->jsonData();
      if (methods[i]->id() == EventDataManager::nilID) {
        methods[i]->nilResult();  // it can never be matched to an answer
      } else {
        pending[methods[i]->id()] = methods[i];
      }
    }
    body += ']';
  });
  return body;
}

void VNTRRequester::detach() { detached_.store(true); }

void VNTRRequester::handleReply(PendingTable& pending, const SentBatch& sent,
                                std::optional<std::string> data,
                                std::optional<HTTPURLResponse> response,
                                std::optional<HTTPError> error) {
  if (detached_.load()) {
    isRequesting.store(false);  // touches nothing else: the runtime may be going away
    return;
  }
  // The error and the status code do not change how the answer is handled: the body decides.
  // They only pace and size the following batches.
  bool parsed = false;
  const bool answered = response && data;
  if (response) {
    cycleClock_.replyArrived();  // a failed request's next timer waits for the network
    reportStatistic(VNTRStatistic::responseReceived, 1);
    if (!data) {
      reportStatistic(VNTRStatistic::responseEmpty, 1);
    } else {
      reportStatistic(VNTRStatistic::responseDataReceived, 1);
      // The answered requests leave the queue at once; their one commit waits (see below).
      store_.performAndWaitJoiningSaves([&] { parsed = detail::dispatchResults(pending, *data); });
    }
  } else {
    reportStatistic(VNTRStatistic::requestFailed, 1);
  }
  if (!answered) releaseBatchLock();  // nothing to remove
  settle(BatchOutcome::of(response, error, data.has_value(), parsed), sent);
  endBatch();
  // Offline: the reachability callback restarts the requester when the network returns.
  if (response || reachability_.isReachable()) fire();
  if (!answered) return;
  // The commit of the deletes goes behind the next timer on the main queue, so that it does not
  // take the CPU from the steps that arm it. The next batch's dequeue waits on the store queue
  // behind the commit, and the lock goes only once it is done: earlier, another process could
  // send the requests this reply is removing.
  mainQueue_.post([self = shared_from_this()] {
    if (self->detached_.load()) return;
    self->store_.saveContextLater([lock = self->batchLock_] {
      if (lock) lock->release();
    });
  });
}

void VNTRRequester::settle(const BatchOutcome& outcome, const SentBatch& sent) {
  outcome.log(sent.requests);
  if (outcome.kind == BatchOutcome::Kind::tooLarge) {
    if (sizer_.refused(sent.requests) && sent.only) {
      // Refused even alone: it would block every batch after it, so it goes.
      const auto& only = sent.only;
      store_.performAndWait([&] {
        store_.remove(only->rowId());
        store_.saveContext();
      });
      Debug(VantrelLogLevel::warning,
            "Removed a request the server refuses as too large (HTTP 413): id \"" + only->id() +
                "\", " + std::to_string(only->jsonData().size()) + " bytes");
    }
  } else if (outcome.kind == BatchOutcome::Kind::answered) {
    sizer_.accepted();
  }
  if (outcome.kind != BatchOutcome::Kind::failed || !retryBackoff_ || !retryBackoff_()) {
    backoff_.reset();
    return;
  }
  const double delay = backoff_.nextDelay(batchIntervalSeconds.load(), outcome.retryAfter);
  backoffDelay_.store(delay);
  Debug(VantrelLogLevel::info, "Next batch in " + std::to_string(delay) + " s (backoff after " +
                                   std::to_string(backoff_.failures()) + " failed batches)");
}

namespace {

// The default textual rendering of a JSON value: strings without quotes, the rest as JSON.
std::string render(const nlohmann::json& value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string errorMessage(const nlohmann::json& error) {
  std::string message;
  if (const auto code = error.find("code"); code != error.end()) {
    message += "code:" + render(*code) + " ";
  }
  if (const auto text = error.find("message"); text != error.end()) message += render(*text);
  return message;
}

}  // namespace

bool detail::dispatchResults(PendingTable& pending, const std::string& data) {
  auto parsed = VNTRRequestResponse::make(data);
  if (!parsed) {
    reportStatistic(VNTRStatistic::responseUnparsable, 1);
    return false;
  }
  reportStatistic(VNTRStatistic::responseParsed, 1);
  for (const auto& answer : parsed->methodResponses) {
    // An unknown or repeated id finds nothing in the table and is ignored.
    if (auto entry = pending.extract(answer.id)) {
      if (answer.remoteResult) {
        entry.mapped()->processResult(*answer.remoteResult);
      } else {
        entry.mapped()->nilResult();
      }
    }
    if (answer.remoteError) Debug(VantrelLogLevel::error, errorMessage(*answer.remoteError));
  }
  return true;
}

}  // namespace vntr
