#include "fetcher/config_watch.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <iterator>
#include <string>

#include "base/log_line.h"
#include "base/paths.h"
#include "base/small_file.h"

namespace fetcher {

namespace {

// The device's DHCP client writes the first file, and its DNS forwarder the second.
constexpr const char* kWatchedPaths[] = {base::kLeaseFile, base::kResolverFile};
constexpr std::uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;
// The length is not checked here: the reader of the file checks it.
constexpr std::size_t kAnyLength = SIZE_MAX;

/// @return the watch; negative if the file is missing or not trusted
int addWatch(int fd, const char* path) {
  const auto file = base::openFile(path, {.mostBytes = kAnyLength});
  if (file.failure) return -1;
  // The watch is set through the descriptor. So the checked file is watched, even if another file
  // now has that name.
  const std::string opened = "/proc/self/fd/" + std::to_string(file.fd.get());
  return inotify_add_watch(fd, opened.c_str(), kChanges);
}

}  // namespace

int waitForChanges(int fd, int interval) {
  logLine(LOG_INFO, "PACFetcher-wait_for_changes fd:%d, interval:%d", fd, interval);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout{interval, 0};
  const int ready = select(FD_SETSIZE, &readable, nullptr, nullptr, &timeout);
  if (ready < 0) logLine(LOG_ERR, "PACFetcher-wait_for_changes select error, ret:%d", ready);
  return ready;
}

ConfigWatch::ConfigWatch() {
  const Lock lock(mMutex);
  mWatchDescriptors.reserve(std::size(kWatchedPaths));
}

void ConfigWatch::begin() {
  const Lock lock(mMutex);
  mWatchesRemoved = false;
  mIsEnding = false;
}

int ConfigWatch::open() {
  const Lock lock(mMutex);
  mInotifyFd = inotify_init();
  if (mInotifyFd >= 0 && mInotifyFd < FD_SETSIZE) {
    fcntl(mInotifyFd, F_SETFD, FD_CLOEXEC);
    return mInotifyFd;
  }
  logLine(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc inotify init failure, ifd:%d", mInotifyFd);
  if (mInotifyFd >= 0) ::close(mInotifyFd);
  return mInotifyFd = -1;
}

bool ConfigWatch::addWatches() {
  bool any = false;
  for (const char* path : kWatchedPaths) {
    logLine(LOG_NOTICE, "PACFetcher-dhcpCfgWatchThreadFunc inotify_add_watch, path:%s", path);
    const Lock lock(mMutex);
    const int watch = addWatch(mInotifyFd, path);
    if (watch < 0) {
      logLine(LOG_ERR, "PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:%s", path);
      continue;
    }
    mWatchDescriptors.push_back(watch);
    any = true;
  }
  return any;
}

bool ConfigWatch::readEvents(char* buffer) {
  // Only this thread, the watch thread, changes mInotifyFd. So the copy stays valid without the
  // mutex.
  int fd = -1;
  {
    const Lock lock(mMutex);
    fd = mInotifyFd;
  }
  bool any = false;
  int waiting = 0;
  do {
    const ssize_t length = read(fd, buffer, kEventBytes);
    logLine(LOG_INFO, "PACFetcher-dhcpCfgWatchThreadFunc read len:%d", static_cast<int>(length));
    if (length < 0) return any;
    any = true;
  } while (ioctl(fd, FIONREAD, &waiting) == 0 && waiting > 0);
  return any;
}

void ConfigWatch::pause(std::chrono::milliseconds duration) {
  Lock lock(mMutex);
  const auto end = std::chrono::steady_clock::now() + duration;
  while (!mIsEnding && std::chrono::steady_clock::now() < end) {
    mEnding.wait_until(lock.native(), end);
  }
}

void ConfigWatch::close() {
  const Lock lock(mMutex);
  removeWatches(false);
  if (mInotifyFd >= 0) ::close(mInotifyFd);
  mInotifyFd = -1;
}

void ConfigWatch::end() {
  const Lock lock(mMutex);
  mIsEnding = true;
  mEnding.notify_all();
  removeWatches(true);
}

// When a watch is removed, the kernel queues an event, and this event wakes the thread from select.
// If the watch has already ended because its file was removed, the kernel queues no event. In this
// case, a watch on "/" is made and removed, with the same effect.
void ConfigWatch::removeWatches(bool wakeThread) {
  if (mWatchesRemoved || mInotifyFd < 0) return;
  mWatchesRemoved = true;
  for (const int watch : mWatchDescriptors) inotify_rm_watch(mInotifyFd, watch);
  mWatchDescriptors.clear();
  if (wakeThread) inotify_rm_watch(mInotifyFd, inotify_add_watch(mInotifyFd, "/", IN_DELETE_SELF));
}

}  // namespace fetcher
