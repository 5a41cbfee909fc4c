#include "platform/bus/bus_loop.h"

#include <dbus/dbus.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <system_error>
#include <utility>

#include "base/log_line.h"
#include "platform/process/thread_name.h"

namespace DBus {

namespace {

// Time limit for the last output before the loop ends. This output usually fits in the socket's
// buffer. It does not fit if the bus hangs, or if the bus gets no CPU time on a busy machine.
constexpr std::chrono::seconds kSendLimit{5};
// How long the loop answers the calls that arrived before its end. The limits of the bus allow
// 25,600 such calls.
constexpr std::chrono::seconds kAnswerLimit{5};
constexpr int kAnswerPollMilliseconds = 100;
// The pause before the next attempt if poll() fails.
constexpr std::chrono::milliseconds kRefusedPause{100};

base::UniqueFd makeEventFd() {
  base::UniqueFd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!fd) throw std::system_error(errno, std::generic_category(), "eventfd");
  return fd;
}

short toPollEvents(int flags) {
  int events = 0;
  if ((flags & DBUS_WATCH_READABLE) != 0) events |= POLLIN;
  if ((flags & DBUS_WATCH_WRITABLE) != 0) events |= POLLOUT;
  return static_cast<short>(events);
}

int toWatchFlags(short events) {
  int flags = 0;
  if ((events & POLLIN) != 0) flags |= DBUS_WATCH_READABLE;
  if ((events & POLLOUT) != 0) flags |= DBUS_WATCH_WRITABLE;
  if ((events & POLLHUP) != 0) flags |= DBUS_WATCH_HANGUP;
  if ((events & (POLLERR | POLLNVAL)) != 0) flags |= DBUS_WATCH_ERROR;
  return flags;
}

}  // namespace

class BusLoop::LoopWatch : public Watch {
 public:
  LoopWatch(Watch::Internal* internal, const BusLoop& loop) : Watch(internal), mLoop(loop) {}
  void toggle() override { mLoop.kick(); }

 private:
  const BusLoop& mLoop;
};

class BusLoop::LoopTimeout : public Timeout {
 public:
  LoopTimeout(Timeout::Internal* internal, const BusLoop& loop) : Timeout(internal), mLoop(loop) {
    arm();
  }
  void toggle() override {
    arm();
    mLoop.kick();
  }
  void arm() { mDue = Clock::now() + std::chrono::milliseconds(interval()); }
  Clock::time_point due() const { return mDue; }

 private:
  const BusLoop& mLoop;
  Clock::time_point mDue;
};

BusLoop::BusLoop(std::size_t maxPosted) : mMaxPosted(maxPosted), mEventFd(makeEventFd()) {}

BusLoop::~BusLoop() {
  stop();
}

void BusLoop::start(Connection& connection, const std::string& name, std::function<void()> lost) {
  if (mThread.joinable()) return;
  mConnection = &connection;
  mName = name;
  mHasReleasedName = false;
  mLost = std::move(lost);
  mLeave = false;
  mThread = std::thread([this] { enter(); });
  mThreadId = mThread.get_id();
}

void BusLoop::stop() {
  if (!mThread.joinable()) return;
  leave();
  mThread.join();
  mThreadId = std::thread::id();
  const Lock lock(mMutex);
  mPosted.clear();
}

bool BusLoop::post(std::function<void()> function) {
  try {
    const Lock lock(mMutex);
    if (mPosted.size() >= mMaxPosted) return false;
    mPosted.push_back(std::move(function));
  } catch (const std::exception&) {
    return false;  // memory is exhausted; the calling thread may handle no exceptions
  }
  kick();
  return true;
}

bool BusLoop::runsElsewhere() const {
  const auto running = mThreadId.load();
  return running != std::thread::id() && running != std::this_thread::get_id();
}

void BusLoop::enter() {
  // This thread stores its own id, because the first message may arrive before start() could store
  // it.
  mThreadId = std::this_thread::get_id();
  pthread_name_np(gettid(), "pm-bus");
  End end = End::kLost;
  try {
    end = run();
  } catch (const std::exception& error) {
    // Memory is exhausted. This is handled like the loss of the bus.
    logLine(LOG_ERR, "bus: the loop failed: %s", error.what());
  }
  if (end == End::kLost && mLost) mLost();
}

void BusLoop::leave() {
  mLeave = true;
  kick();
}

Timeout* BusLoop::add_timeout(Timeout::Internal* internal) {
  auto timeout = std::make_unique<LoopTimeout>(internal, *this);
  const Lock lock(mMutex);
  mTimeouts.push_back(timeout.get());
  kick();
  return timeout.release();
}

void BusLoop::rem_timeout(Timeout* timeout) {
  {
    const Lock lock(mMutex);
    std::erase(mTimeouts, timeout);
  }
  delete timeout;
}

Watch* BusLoop::add_watch(Watch::Internal* internal) {
  auto watch = std::make_unique<LoopWatch>(internal, *this);
  const Lock lock(mMutex);
  mWatches.push_back(watch.get());
  kick();
  return watch.release();
}

void BusLoop::rem_watch(Watch* watch) {
  {
    const Lock lock(mMutex);
    std::erase(mWatches, watch);
  }
  delete watch;
}

BusLoop::End BusLoop::run() {
  while (true) {
    dispatch_pending();
    runPosted();
    dispatch_pending();
    if (!mConnection->connected()) return End::kLost;
    if (mLeave) {
      leaveInOrder();
      return End::kLeft;
    }
    waitAndHandle(takeTurn());
  }
}

// The loop reads nothing while output waits: see the header.
int BusLoop::takeTurn() {
  return mTurn && !outputWaits() ? mTurn() : -1;
}

// A function that is posted during this round waits for the next round, so that calls are served in
// between.
void BusLoop::runPosted() {
  for (auto left = posted(); left > 0 && !outputWaits(); --left) {
    std::function<void()> first;
    {
      const Lock lock(mMutex);
      first = std::move(mPosted.front());
      mPosted.pop_front();
    }
    runLogged(first);
  }
}

std::size_t BusLoop::posted() {
  const Lock lock(mMutex);
  return mPosted.size();
}

void BusLoop::runLogged(const std::function<void()>& function) {
  try {
    function();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "bus: a function handed to the bus thread failed: %s", error.what());
  } catch (...) {
    logLine(LOG_ERR, "bus: a function handed to the bus thread failed: %s", "unknown exception");
  }
}

void BusLoop::waitAndHandle(int turnTimeout) {
  collectEntries();
  int timeout = pollTimeout();
  if (turnTimeout >= 0 && (timeout < 0 || turnTimeout < timeout)) timeout = turnTimeout;
  const int ready = poll(mEntries.data(), mEntries.size(), timeout);
  // The kernel has no memory, or too few descriptors are allowed. Both may change, so the loop
  // tries again.
  if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(kRefusedPause);
  if (ready > 0) {
    if (mEntries.front().revents != 0) {
      std::uint64_t kicks = 0;
      // It is not an error if there are no data: an earlier wake-up may have read them.
      [[maybe_unused]] const auto taken = read(mEventFd.get(), &kicks, sizeof kicks);
    }
    handleWatches();
  }
  handleTimeouts();
}

void BusLoop::collectEntries() {
  mEntries.assign(1, {mEventFd.get(), POLLIN, 0});
  mPolled.assign(1, nullptr);
  const bool full = outputWaits();
  const Lock lock(mMutex);
  for (auto* watch : mWatches) {
    if (!watch->enabled()) continue;
    const bool writes = (watch->flags() & DBUS_WATCH_WRITABLE) != 0;
    // Even if no events are requested, poll() reports that the bus is gone. But only the reading
    // watch handles this.
    const short events = full && !writes ? short{0} : toPollEvents(watch->flags());
    mEntries.push_back({watch->descriptor(), events, 0});
    mPolled.push_back(watch);
  }
}

void BusLoop::handleWatches() {
  for (std::size_t i = 1; i < mEntries.size(); ++i) {
    if (mEntries[i].revents == 0) continue;
    {
      // The handling of a previous watch may have removed this watch.
      const Lock lock(mMutex);
      if (std::find(mWatches.begin(), mWatches.end(), mPolled[i]) == mWatches.end()) continue;
    }
    mPolled[i]->handle(toWatchFlags(mEntries[i].revents));
  }
}

int BusLoop::pollTimeout() {
  const Lock lock(mMutex);
  auto nearest = std::chrono::milliseconds::max();
  const auto now = Clock::now();
  for (const auto* timeout : mTimeouts) {
    if (!timeout->enabled()) continue;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(timeout->due() - now);
    nearest = std::min(nearest, std::max(left, std::chrono::milliseconds(0)));
  }
  if (nearest == std::chrono::milliseconds::max()) return -1;
  constexpr std::chrono::milliseconds kLongest{60'000};
  return static_cast<int>(std::min(nearest, kLongest).count());
}

void BusLoop::handleTimeouts() {
  std::vector<LoopTimeout*> due;
  const auto now = Clock::now();
  {
    const Lock lock(mMutex);
    for (auto* timeout : mTimeouts) {
      if (timeout->enabled() && timeout->due() <= now) due.push_back(timeout);
    }
  }
  for (auto* timeout : due) {
    {
      const Lock lock(mMutex);
      if (std::find(mTimeouts.begin(), mTimeouts.end(), timeout) == mTimeouts.end()) continue;
    }
    timeout->arm();
    timeout->handle();
  }
}

// The output of functions that were posted before the end is still sent, if the bus accepts it.
void BusLoop::leaveInOrder() {
  answerWhatHasCome(Clock::now() + kAnswerLimit);
  const auto limit = Clock::now() + kSendLimit;
  sendWhatWaits(limit);
  runPosted();
  sendWhatWaits(limit);
}

// When the bus has answered the release of the name, no more calls for the name arrive. A later
// caller gets the error that there is no such service, and does not wait in vain.
void BusLoop::answerWhatHasCome(Clock::time_point limit) {
  if (mName.empty()) return;
  MessageSlot filter;
  filter = new Callback<BusLoop, bool, const Message&>(this, &BusLoop::onMessage);
  mConnection->add_filter(filter);
  CallMessage release("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                      "ReleaseName");
  release.writer().append_string(mName.c_str());
  mConnection->send(release, &mReleaseSerial);
  while (mConnection->connected() && mReleaseSerial != 0 && Clock::now() < limit) {
    waitAndHandle(kAnswerPollMilliseconds);
    dispatch_pending();
    takeTurn();
  }
  mConnection->remove_filter(filter);
  mHasReleasedName = true;
}

bool BusLoop::onMessage(const Message& message) {
  const int type = message.type();
  if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR) return false;
  if (message.reply_serial() == static_cast<int>(mReleaseSerial)) mReleaseSerial = 0;
  return false;
}

// The library's own flush is not used, because it waits for ever if the bus does not read.
void BusLoop::sendWhatWaits(Clock::time_point limit) {
  while (mConnection->connected() && outputWaits() && Clock::now() < limit) {
    collectEntries();
    const int ready = poll(mEntries.data() + 1, mEntries.size() - 1, 100);
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(kRefusedPause);
    if (ready > 0) handleWatches();
  }
}

// The library keeps its writing watch enabled only while something waits to be written.
bool BusLoop::outputWaits() {
  const Lock lock(mMutex);
  return std::any_of(mWatches.begin(), mWatches.end(), [](const LoopWatch* watch) {
    return watch->enabled() && (watch->flags() & DBUS_WATCH_WRITABLE) != 0;
  });
}

void BusLoop::kick() const {
  const std::uint64_t one = 1;
  // The result does not matter, because a full counter also wakes the loop.
  [[maybe_unused]] const auto written = write(mEventFd.get(), &one, sizeof one);
}

}  // namespace DBus
