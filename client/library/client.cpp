#include "client/library/client.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <new>
#include <utility>

namespace client::library {

namespace {

constexpr const char* kThreadName = "pm-client";

Outcome only(proxymanager_status status) {
  return {status, {}, {}};
}

/// Milliseconds for poll(), rounded up; -1 for no end.
int untilPollEnds(std::optional<Clock::time_point> end) {
  if (!end) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
}

}  // namespace

Client::Client(std::string address, bool mayStart)
    : mProcess(getpid()), mAddress(std::move(address)), mMayStart(mayStart) {}

Client::~Client() {
  std::optional<pthread_t> thread;
  {
    const Lock lock(mMutex);
    mIsEnding = true;
    thread = mThread;
    mWatches.clear();
  }
  if (thread) {
    wake();
    pthread_join(*thread, nullptr);
  }
  mBusFd = -1;
  endAll(only(PROXYMANAGER_CANCELLED));
  deliver();
  mLink.reset();
  if (mWakeFd >= 0) close(mWakeFd);
}

bool Client::belongsHere() const {
  return getpid() == mProcess;
}

void Client::abandon() {
  for (auto* const descriptor : {&mWakeFd, &mBusFd}) {
    if (const int fd = descriptor->exchange(-1); fd >= 0) close(fd);
  }
}

// --- any thread ---

Outcome Client::get(const char* url, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  Waiter waiter;
  Lock lock(mMutex);
  if (mIsEnding) return only(PROXYMANAGER_CANCELLED);
  if (auto answer = mRemembered.find(url)) return {PROXYMANAGER_OK, std::move(answer), {}};
  if (limit.count() == 0) return only(PROXYMANAGER_TOO_SLOW);
  if (isOwnThread()) return only(PROXYMANAGER_BUSY);
  if (const auto status = mayAsk(); status != PROXYMANAGER_OK) return only(status);
  Questions question;
  question.push_back({++mLastId, end, &waiter, nullptr, nullptr, {}});
  const auto call = put(url, question);
  while (!waiter.isEnded) {
    if (waiter.ended.wait_until(lock.native(), end) == std::cv_status::timeout && !waiter.isEnded) {
      takeBack(call, waiter);
      return tooSlow(mIsConnected);
    }
  }
  return std::move(waiter.outcome);
}

proxymanager_status Client::ask(const char* url, std::chrono::milliseconds limit,
                                proxymanager_answer_callback callback, void* context,
                                proxymanager_id& id, AnswerRef& remembered) {
  const auto end = Clock::now() + limit;
  const Lock lock(mMutex);
  if (mIsEnding) return PROXYMANAGER_CANCELLED;
  remembered = mRemembered.find(url);
  if (remembered) return PROXYMANAGER_OK;
  if (const auto status = mayAsk(); status != PROXYMANAGER_OK) return status;
  Questions question;
  question.push_back({++mLastId, end, nullptr, callback, context, {}});
  put(url, question);
  id = mLastId;
  return PROXYMANAGER_OK;
}

bool Client::cancel(proxymanager_id id) {
  const Lock lock(mMutex);
  for (auto call = mCalls.begin(); call != mCalls.end(); ++call) {
    const auto asked = std::find_if(call->questions.begin(), call->questions.end(),
                                    [&](const Question& question) { return question.id == id; });
    if (asked == call->questions.end() || asked->waiter != nullptr) continue;
    asked->outcome = only(PROXYMANAGER_CANCELLED);
    mEnded.splice(mEnded.end(), call->questions, asked);
    if (call->questions.empty() && !call->isSent()) mCalls.erase(call);
    wake();
    return true;
  }
  return false;
}

proxymanager_status Client::watch(proxymanager_change_callback callback, void* context,
                                  proxymanager_id& id) {
  const Lock lock(mMutex);
  if (mIsEnding) return PROXYMANAGER_CANCELLED;
  if (mWatches.size() >= PROXYMANAGER_MAX_WATCHES) return PROXYMANAGER_BUSY;
  mWatches.push_back({++mLastId, callback, context, false});
  if (const auto status = startThread(); status != PROXYMANAGER_OK) {
    mWatches.pop_back();
    return status;
  }
  id = mLastId;
  wake();
  return PROXYMANAGER_OK;
}

void Client::unwatch(proxymanager_id id) {
  Lock lock(mMutex);
  mWatches.remove_if([&](const Watch& watch) { return watch.id == id; });
  if (isOwnThread()) return;
  while (mRunningWatch == id && id != 0) mWatchReturned.wait(lock.native());
}

bool Client::isOwnThread() const {
  return mThread && pthread_equal(*mThread, pthread_self()) != 0;
}

proxymanager_status Client::mayAsk() {
  if (mQuestionCount >= PROXYMANAGER_MAX_QUESTIONS) return PROXYMANAGER_BUSY;
  return startThread();
}

/// Puts the one question in the list where the thread finds it. Throws std::bad_alloc; the question
/// is not asked then.
Client::Calls::iterator Client::put(const char* url, Questions& question) {
  // The answer to what was sent before a change may be of before the change.
  auto call =
      std::find_if(mCalls.begin(), mCalls.end(), [&](const Call& other) PM_REQUIRES(mMutex) {
        return other.url == url && (!other.isSent() || other.generation == mGeneration);
      });
  if (call == mCalls.end()) {
    mCalls.emplace_back();
    call = std::prev(mCalls.end());
    try {
      call->url = url;
    } catch (...) {
      mCalls.pop_back();
      throw;
    }
  }
  call->questions.splice(call->questions.end(), question);
  ++mQuestionCount;
  wake();
  return call;
}

void Client::takeBack(Calls::iterator call, const Waiter& waiter) {
  call->questions.remove_if([&](const Question& question) { return question.waiter == &waiter; });
  --mQuestionCount;
  if (call->questions.empty() && !call->isSent()) mCalls.erase(call);
}

/// All signals are blocked in the thread: they are the program's.
proxymanager_status Client::startThread() {
  if (mThread) return PROXYMANAGER_OK;
  if (mWakeFd < 0) mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (mWakeFd < 0) return PROXYMANAGER_NO_MEMORY;
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, threadMain, this);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) return PROXYMANAGER_NO_MEMORY;
  mThread = thread;
  return PROXYMANAGER_OK;
}

void Client::wake() const {
  // Fails only where so many wakings wait already that the next would be one too many to count.
  constexpr std::uint64_t kOne = 1;
  [[maybe_unused]] const auto written = write(mWakeFd, &kOne, sizeof kOne);
}

// --- the client's thread ---

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

/// Makes ready what the next wait is for. @return false where the client ends
bool Client::prepare() {
  const auto now = Clock::now();
  bool isAsked = false;
  bool isWatched = false;
  {
    const Lock lock(mMutex);
    if (mIsEnding) return false;
    expire(now);
    isAsked = !mCalls.empty();
    isWatched = !mWatches.empty();
  }
  if (mLink && !mLink->isReady() && now >= mLinkEnd) {
    lose(failedConnecting(ETIMEDOUT));
    isAsked = false;
  }
  if (!mLink && (isAsked || (isWatched && now >= mRetryAt))) connect(now);
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
  mIsOwnerKnown = false;
  mLinkEnd = now + kConnectLimit;
  mLink.emplace(mMayStart, *this);
  if (const int error = mLink->open(mAddress.c_str()); error != 0) {
    lose(failedConnecting(error));
  }
}

/// As many as may be under way at once.
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
        end(call->questions, failedSending(error));
        mCalls.erase(call);
      }
    }
    call = next;
  }
}

/// Takes one message, so that no flood of them hides the rest. @return whether there may be more
bool Client::handleBus() {
  if (!mLink) return false;
  const bool wasReady = mLink->isReady();
  const int result = mLink->process();
  if (result < 0) {
    lose(wasReady ? failedAnswer(kDisconnected, "") : failedConnecting(-result));
    return false;
  }
  return result > 0;
}

void Client::lose(const Outcome& outcome) {
  mBusFd = -1;
  forget(true);
  endAll(outcome);
  mLink.reset();
  mRetryAt = Clock::now() + mPause;
  mPause = std::min(mPause * 2, kLongestPause);
  setPresence(Presence::kGone);
}

void Client::wait(bool mayBeMore) {
  std::array<pollfd, 2> polled{{{mWakeFd, POLLIN, 0}, {-1, 0, 0}}};
  if (mLink) {
    polled[1] = mLink->polled();
    mBusFd = polled[1].fd;
  }
  const int limit = mayBeMore || mChange ? 0 : untilPollEnds(wakeAt());
  if (poll(polled.data(), polled.size(), limit) > 0 && polled[0].revents != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto taken = read(mWakeFd, &count, sizeof count);
  }
}

std::optional<Clock::time_point> Client::wakeAt() {
  auto at = Clock::time_point::max();
  if (mLink) at = mLink->wakeAt().value_or(at);
  if (mLink && !mLink->isReady()) at = std::min(at, mLinkEnd);
  const Lock lock(mMutex);
  if (!mLink && !mWatches.empty()) at = std::min(at, mRetryAt);
  if (!mEnded.empty()) at = Clock::now();
  for (const auto& call : mCalls) {
    for (const auto& question : call.questions) {
      if (question.waiter == nullptr) at = std::min(at, question.end);
    }
  }
  if (at == Clock::time_point::max()) return std::nullopt;
  return at;
}

/// Ends them all alike. Those with a callback are left for deliver().
void Client::end(Questions& questions, const Outcome& outcome) {
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
    waiter.ended.notify_one();  // under the mutex: the waiter goes with it
  }
}

void Client::endAll(const Outcome& outcome) {
  const Lock lock(mMutex);
  for (auto& call : mCalls) end(call.questions, outcome);
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

/// @param isOfNewKind whether what is being asked may be answered as before the change
void Client::forget(bool isOfNewKind) {
  const Lock lock(mMutex);
  mRemembered.clear();
  if (isOfNewKind) ++mGeneration;
}

void Client::setPresence(Presence presence) {
  const auto before = std::exchange(mPresence, presence);
  if (presence == Presence::kThere) {
    mChange = PROXYMANAGER_DAEMON_CAME;
  } else if (before != Presence::kGone) {
    mChange = PROXYMANAGER_DAEMON_WENT;
  }
}

void Client::tellNewWatches() {
  if (mPresence == Presence::kUnknown) return;
  tell(mPresence == Presence::kThere ? PROXYMANAGER_DAEMON_CAME : PROXYMANAGER_DAEMON_WENT, true);
}

void Client::tellWatches(proxymanager_change change) {
  tell(change, false);
}

/// Calls the watches that have been told nothing yet, or the others. One that comes meanwhile is
/// left for the next time.
void Client::tell(proxymanager_change change, bool isFirst) {
  proxymanager_id last = 0;
  for (;;) {
    Watch watch{};
    {
      const Lock lock(mMutex);
      const auto next = std::find_if(mWatches.begin(), mWatches.end(), [&](const Watch& other) {
        return other.id > last && other.isTold != isFirst;
      });
      if (next == mWatches.end() || mIsEnding) return;
      next->isTold = true;
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

// --- told by the link, on the client's thread ---

void Client::replied(BusLink::Asked& asked, const Outcome& outcome, bool isOwners) noexcept {
  auto& call = static_cast<Call&>(asked);
  const Lock lock(mMutex);
  if (outcome.answer && isOwners && call.generation == mGeneration &&
      !outcome.answer->entries().empty()) {
    try {
      mRemembered.add(call.url, outcome.answer);
    } catch (const std::bad_alloc&) {  // it is asked for again, then
    }
  }
  end(call.questions, outcome);
  mCalls.remove_if([&](const Call& other) { return &other == &call; });
}

void Client::answersChanged() noexcept {
  forget(true);
  mChange = PROXYMANAGER_ANSWERS_CHANGED;
}

void Client::ownerChanged(bool isThere) noexcept {
  // Until now nobody was there to answer, or nothing has been asked on this link before its owner.
  const bool isNews = std::exchange(mIsOwnerKnown, true) && mPresence == Presence::kThere;
  forget(isNews);
  mPause = kFirstPause;
  setPresence(isThere ? Presence::kThere : Presence::kGone);
}

}  // namespace client::library
