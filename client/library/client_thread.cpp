// The loop of the client's own thread: it handles a message, runs the callbacks, sends the
// questions, and sleeps. The rest of the client is in client.cpp.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include "client/library/bus_error.h"
#include "client/library/client.h"

namespace client::library {

namespace {

constexpr const char* kThreadName = "pm-client";

/// The timeout for a poll() that ends at `end`: in milliseconds, rounded up; -1 if there is no
/// `end`.
int untilPollEnds(std::optional<Clock::time_point> end) {
  if (!end) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

}  // namespace

void* Client::threadMain(void* client) {
  pthread_setname_np(pthread_self(), kThreadName);
  static_cast<Client*>(client)->run();
  return nullptr;
}

void Client::run() {
  for (;;) {
    const bool mayBeMore = handleBus();
    if (mChange) tellWatches(*std::exchange(mChange, std::nullopt));
    tellNewWatches();
    deliver();
    if (!prepare()) return;
    wait(mayBeMore);
  }
}

/// Does the work that is due before the next wait: ends late questions, connects to the bus, sends
/// questions. @return false if the client is ending
bool Client::prepare() {
  const auto now = Clock::now();
  bool isAsked = false;
  bool isWatched = false;
  bool isNewlyWatched = false;
  {
    const Lock lock(mMutex);
    if (mIsEnding) return false;
    expire(now);
    isAsked = !mCalls.empty();
    isWatched = !mWatches.empty();
    isNewlyWatched = std::any_of(mWatches.begin(), mWatches.end(), [](const Watch& watch) {
      return watch.state == Watch::State::kNew;
    });
  }
  const bool isNeeded = isAsked || isNewlyWatched || (isWatched && now >= mRetryAt);
  if (!mLink && isNeeded) connect(now);
  mIsConnected = mLink && mLink->isReady();
  if (mIsConnected) send();
  return true;
}

void Client::expire(Clock::time_point now) {
  for (auto call = mCalls.begin(); call != mCalls.end();) {
    for (auto asked = call->questions.begin(); asked != call->questions.end();) {
      const auto question = asked++;
      if (question->waiter != nullptr || question->end > now) continue;
      question->outcome = tooSlow(mIsConnected);
      mEnded.splice(mEnded.end(), call->questions, question);
    }
    const auto looked = call++;
    if (looked->questions.empty() && !looked->isSent()) mCalls.erase(looked);
  }
}

void Client::connect(Clock::time_point now) {
  {
    const Lock lock(mMutex);
    for (auto& watch : mWatches) {
      if (watch.state == Watch::State::kNew) watch.state = Watch::State::kLooking;
    }
  }
  mIsOwnerKnown = false;
  mLinkEnd = now + kSilenceLimit;
  mLink.emplace(mFlags, *this);
  if (const int error = mLink->open(mAddress.c_str()); error != 0) {
    dropLink(failedConnecting(connectionError(mAddress, error)));
  }
}

/// Sends questions until kMaxCalls calls are in progress.
void Client::send() {
  const Lock lock(mMutex);
  auto underWay =
      std::count_if(mCalls.begin(), mCalls.end(), [](const Call& call) { return call.isSent(); });
  for (auto call = mCalls.begin(); call != mCalls.end();) {
    const auto next = std::next(call);
    if (underWay >= static_cast<std::ptrdiff_t>(kMaxCalls)) return;
    if (!call->isSent()) {
      call->generation = mGeneration;
      if (const int error = mLink->send(call->url, *call); error == 0) {
        ++underWay;
      } else {
        complete(call->questions, failedSending(error));
        mCalls.erase(call);
      }
    }
    call = next;
  }
}

/// Handles only one message, so that many messages do not delay other work. @return whether there
/// may be more messages
bool Client::handleBus() {
  if (!mLink) return false;
  const auto looked = Clock::now();
  const int result = mLink->process();
  if (result < 0) {
    const bool isOver = mLink->isReady() && result != -ENOMEM;
    dropLink(isOver ? failedAnswer(kDisconnected, "")
                    : failedConnecting(connectionError(mAddress, -result)));
    return false;
  }
  if (mLink->isSettled()) return result > 0;
  // The bus counts as silent only if there is nothing to read at the end of the time limit. If this
  // thread was busy, there may still be messages to read.
  if (result > 0) {
    mLinkEnd = Clock::now() + kSilenceLimit;
  } else if (looked >= mLinkEnd) {
    dropLink(failedConnecting(ETIMEDOUT));
  }
  return result > 0;
}

void Client::dropLink(const Outcome& outcome) {
  invalidate(true);
  completeAll(outcome);
  mLink.reset();
  mRetryAt = Clock::now() + mPause;
  mPause = std::min(mPause * 2, kLongestPause);
  setPresence(Presence::kGone);
}

void Client::wait(bool mayBeMore) {
  std::array<pollfd, 2> polled{{{mWakeFd, POLLIN, 0}, {-1, 0, 0}}};
  if (mLink) polled[1] = mLink->polled();
  const int limit = mayBeMore || mChange ? 0 : untilPollEnds(wakeAt());
  if (poll(polled.data(), polled.size(), limit) > 0 && polled[0].revents != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = read(mWakeFd, &count, sizeof count);
  }
}

std::optional<Clock::time_point> Client::wakeAt() {
  auto at = Clock::time_point::max();
  if (mLink) at = mLink->wakeAt().value_or(at);
  if (mLink && !mLink->isSettled()) at = std::min(at, mLinkEnd);
  const Lock lock(mMutex);
  for (const auto& watch : mWatches) {
    if (mLink) break;
    at = std::min(at, watch.state == Watch::State::kLooking ? Clock::now() : mRetryAt);
  }
  if (!mEnded.empty()) at = Clock::now();
  for (const auto& call : mCalls) {
    for (const auto& question : call.questions) {
      if (question.waiter == nullptr) at = std::min(at, question.end);
    }
  }
  if (at == Clock::time_point::max()) return std::nullopt;
  return at;
}

/// Ends all `questions` with the same outcome. deliver() later calls their callbacks.
void Client::complete(Questions& questions, const Outcome& outcome) {
  for (auto asked = questions.begin(); asked != questions.end();) {
    const auto question = asked++;
    if (question->waiter == nullptr) {
      question->outcome = outcome;
      mEnded.splice(mEnded.end(), questions, question);
      continue;
    }
    auto& waiter = *question->waiter;
    questions.erase(question);
    --mQuestionCount;
    waiter.outcome = outcome;
    waiter.isEnded = true;
    waiter.ended.notify_one();  // before mMutex is released: after that, the waiter may be gone
  }
}

void Client::completeAll(const Outcome& outcome) {
  const Lock lock(mMutex);
  for (auto& call : mCalls) complete(call.questions, outcome);
  mCalls.clear();
}

void Client::deliver() {
  for (;;) {
    Questions one;
    {
      const Lock lock(mMutex);
      if (mEnded.empty()) return;
      one.splice(one.begin(), mEnded, mEnded.begin());
      --mQuestionCount;
    }
    auto& question = one.front();
    setLastFailure(question.outcome);
    question.callback(question.outcome.status, question.outcome.answer.release(), question.context);
  }
}

/// Forgets all remembered answers. @param inFlightIsStale whether the reply to a call in progress
/// may be from before the change
void Client::invalidate(bool inFlightIsStale) {
  const Lock lock(mMutex);
  mRemembered.clear();
  if (inFlightIsStale) ++mGeneration;
}

void Client::setPresence(Presence presence) {
  const auto before = std::exchange(mPresence, presence);
  if (presence == Presence::kThere) {
    mChange = PROXYMANAGER_DAEMON_CAME;
  } else if (before != Presence::kGone) {
    mChange = PROXYMANAGER_DAEMON_WENT;
  }
}

/// Reports the daemon's state to watches that have had no report. If there is no connection, this
/// report goes only to watches for which the client has tried to reach the bus.
void Client::tellNewWatches() {
  if (mPresence == Presence::kUnknown || (mLink && !mIsOwnerKnown)) return;
  tell(mPresence == Presence::kThere ? PROXYMANAGER_DAEMON_CAME : PROXYMANAGER_DAEMON_WENT, true);
}

void Client::tellWatches(proxymanager_change change) {
  tell(change, false);
}

/// If `isFirst`, calls the watches that have had no report yet, else the other watches. A watch
/// that is added during this call is not called until the next time.
void Client::tell(proxymanager_change change, bool isFirst) {
  proxymanager_id last = 0;
  std::optional<proxymanager_id> newest;
  for (;;) {
    Watch watch{};
    {
      const Lock lock(mMutex);
      if (!newest) newest = mLastId;
      const auto next = std::find_if(mWatches.begin(), mWatches.end(), [&](const Watch& other) {
        if (other.id <= last || other.id > *newest) return false;
        if (!isFirst) return other.state == Watch::State::kTold;
        return other.state == Watch::State::kLooking ||
               (other.state == Watch::State::kNew && mLink.has_value());
      });
      if (next == mWatches.end() || mIsEnding) return;
      next->state = Watch::State::kTold;
      watch = *next;
      mRunningWatch = watch.id;
    }
    last = watch.id;
    watch.callback(change, watch.context);
    const Lock lock(mMutex);
    mRunningWatch = 0;
    mWatchReturned.notify_all();
  }
}

// --- called by the link, on the client's thread ---

void Client::replied(BusLink::Asked& asked, const Outcome& outcome, bool isFromOwner) noexcept {
  auto& call = static_cast<Call&>(asked);
  const Lock lock(mMutex);
  if (outcome.answer && isFromOwner && call.generation == mGeneration &&
      !outcome.answer->entries().empty()) {
    try {
      mRemembered.add(call.url, outcome.answer);
      for (const auto& question : call.questions) mRemembered.add(question.url, outcome.answer);
    } catch (const std::bad_alloc&) {  // the answer is not remembered and will be asked for again
    }
  }
  complete(call.questions, outcome);
  mCalls.remove_if([&](const Call& other) { return &other == &call; });
}

void Client::answersChanged() noexcept {
  invalidate(true);
  mChange = PROXYMANAGER_ANSWERS_CHANGED;
}

void Client::ownerChanged(bool isThere) noexcept {
  // Calls in progress are stale only if the daemon was there before. Otherwise, either no daemon
  // could answer until now, or this is the first report of a new link. The questions of a new link
  // reach the bus after its request for the owner.
  const bool isNews = std::exchange(mIsOwnerKnown, true) && mPresence == Presence::kThere;
  invalidate(isNews);
  mPause = kFirstPause;
  setPresence(isThere ? Presence::kThere : Presence::kGone);
}

}  // namespace client::library
