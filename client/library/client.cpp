// The functions that any thread may call. The work of the client's own thread is in
// client_thread.cpp.
#include "client/library/client.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "client/library/asked_url.h"
#include "domain/local_host.h"

namespace client::library {

namespace {

Outcome only(proxymanager_status status) {
  return {status, {}, {}};
}

}  // namespace

Client::Client(std::string address, unsigned flags)
    : mProcess(getpid()), mAddress(std::move(address)), mFlags(flags) {}

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
  completeAll(only(PROXYMANAGER_CANCELLED));
  deliver();
  mLink.reset();
  if (mWakeFd >= 0) close(mWakeFd);
}

bool Client::belongsHere() const {
  return getpid() == mProcess;
}

/// Answers a question without a call to the daemon if the answer is remembered, if the URL is
/// local, or if the URL is not valid. Otherwise, the function returns nothing and sets `asked` to
/// the URL for the daemon.
std::optional<Outcome> Client::answerHere(std::string_view url, std::string& asked) {
  if (auto answer = mRemembered.find(url)) return Outcome{PROXYMANAGER_OK, std::move(answer), {}};
  auto canonical = askedUrl(url);
  if (!canonical) return only(PROXYMANAGER_BAD_ARGUMENT);
  asked = *std::move(canonical);
  if ((mFlags & PROXYMANAGER_ASK_LOCAL) == 0 && domain::isLocalUrl(asked)) {
    AnswerRef local(new proxymanager_answer(localAnswer()));
    mRemembered.add(url, local);
    return Outcome{PROXYMANAGER_OK, std::move(local), {}};
  }
  const Lock lock(mMutex);
  auto answer = mRemembered.find(asked);
  if (!answer) return std::nullopt;
  mRemembered.add(url, answer);
  return Outcome{PROXYMANAGER_OK, std::move(answer), {}};
}

Outcome Client::get(std::string_view url, std::chrono::milliseconds limit) {
  std::string asked;
  if (auto here = answerHere(url, asked)) return *std::move(here);
  const auto end = Clock::now() + limit;
  Waiter waiter;
  Lock lock(mMutex);
  if (mIsEnding) return only(PROXYMANAGER_CANCELLED);
  if (limit.count() == 0) return only(PROXYMANAGER_TOO_SLOW);
  if (isOwnThread()) return only(PROXYMANAGER_BUSY);
  if (const auto status = mayAsk(); status != PROXYMANAGER_OK) return only(status);
  Questions question;
  question.push_back({std::string(url), ++mLastId, end, &waiter, nullptr, nullptr, {}});
  const auto call = enqueue(asked, question);
  while (!waiter.isEnded) {
    if (waiter.ended.wait_until(lock.native(), end) == std::cv_status::timeout && !waiter.isEnded) {
      takeBack(call, waiter);
      return tooSlow(mIsConnected);
    }
  }
  return std::move(waiter.outcome);
}

proxymanager_status Client::ask(std::string_view url, std::chrono::milliseconds limit,
                                proxymanager_answer_callback callback, void* context,
                                proxymanager_id& id, AnswerRef& remembered) {
  std::string asked;
  if (auto here = answerHere(url, asked)) {
    remembered = std::move(here->answer);
    return here->status;
  }
  const auto end = Clock::now() + limit;
  const Lock lock(mMutex);
  if (mIsEnding) return PROXYMANAGER_CANCELLED;
  if (const auto status = mayAsk(); status != PROXYMANAGER_OK) return status;
  Questions question;
  question.push_back({std::string(url), ++mLastId, end, nullptr, callback, context, {}});
  enqueue(asked, question);
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
  mWatches.push_back({++mLastId, callback, context, Watch::State::kNew});
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

/// Puts the question into the list for the client's thread. If the function throws std::bad_alloc,
/// the question is not in the list.
Client::Calls::iterator Client::enqueue(const std::string& asked, Questions& question) {
  // A call that was sent before a change is not used: its answer may be from before the change.
  auto call =
      std::find_if(mCalls.begin(), mCalls.end(), [&](const Call& other) PM_REQUIRES(mMutex) {
        return other.url == asked && (!other.isSent() || other.generation == mGeneration);
      });
  if (call == mCalls.end()) {
    mCalls.emplace_back();
    call = std::prev(mCalls.end());
    try {
      call->url = asked;
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

/// All signals are blocked in the new thread, because the program handles them.
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
  // The write fails only if the counter of the eventfd is full. The thread wakes in this case, too.
  constexpr std::uint64_t kOne = 1;
  [[maybe_unused]] const auto written = write(mWakeFd, &kOne, sizeof kOne);
}

}  // namespace client::library
