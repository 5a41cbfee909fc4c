// The watch thread: notices when the network configuration changes.
//
// The files are watched, not their folders, and events are not decoded: any event on either file
// counts as a change, touch and chmod included. A file that is missing when the thread starts is
// not watched; a watch ends with its file.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <unistd.h>

#include <iterator>
#include <new>

#include "base/log_line.h"
#include "fetcher/fetcher_log.h"
#include "fetcher/pac_fetcher.h"
#include "platform/process/thread_name.h"

using fetcher::kLogClass;

namespace {

// Written by the device's DHCP client and by its DNS forwarder.
constexpr const char* kWatchedPaths[] = {"/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"};
constexpr std::uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE;
constexpr std::size_t kEventBytes = 4096;  // some 200 events; the rest wait for the next read
constexpr char kThreadFunction[] = "dhcpCfgWatchThreadFunc";

}  // namespace

void PACFetcher::dhcpCfgWatchThreadFunc() {
  pthread_name_np(gettid(), "pm-watch");
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  const int fd = openInotify();
  if (fd < 0) return;
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kEventBytes]);
  if (!buffer) {
    logLine(LOG_ERR, "%s%s allocation failed", kLogClass, __func__);
    closeInotify();
    return;
  }
  if (!addWatches(fd)) {
    logLine(LOG_ERR, "%s%s setting up watch on paths failed", kLogClass, __func__);
    closeInotify();
    return;
  }
  watchUntilStopped(fd, buffer.get());
  const Lock lock(mMutex);
  removeWatches(false);
  closeInotify();
}

// A descriptor that select cannot take is as good as none.
int PACFetcher::openInotify() {
  const Lock lock(mWatchMutex);
  mInotifyFd = inotify_init();
  if (mInotifyFd >= 0 && mInotifyFd < FD_SETSIZE) {
    fcntl(mInotifyFd, F_SETFD, FD_CLOEXEC);
    return mInotifyFd;
  }
  logLine(LOG_ERR, "%s%s inotify init failure, ifd:%d", kLogClass, kThreadFunction, mInotifyFd);
  if (mInotifyFd >= 0) close(mInotifyFd);
  return mInotifyFd = -1;
}

void PACFetcher::closeInotify() {
  const Lock lock(mWatchMutex);
  if (mInotifyFd >= 0) close(mInotifyFd);
  mInotifyFd = -1;
  mWatchDescriptors.clear();
}

bool PACFetcher::addWatches(int fd) {
  bool any = false;
  for (const char* path : kWatchedPaths) {
    logLine(LOG_NOTICE, "%s%s inotify_add_watch, path:%s", kLogClass, kThreadFunction, path);
    static_assert(std::size(kWatchedPaths) == kWatchedFiles);
    const int watch = inotify_add_watch(fd, path, kChanges);
    if (watch < 0) {
      logLine(LOG_ERR, "%s%s error setting up watch on path:%s", kLogClass, kThreadFunction, path);
      continue;
    }
    const Lock lock(mWatchMutex);
    mWatchDescriptors.push_back(watch);  // into reserved room: nothing may be thrown here
    any = true;
  }
  return any;
}

void PACFetcher::watchUntilStopped(int fd, char* buffer) {
  while (mRunning) {
    if (wait_for_changes(fd, mInterval) <= 0) continue;
    const ssize_t length = read(fd, buffer, kEventBytes);
    logLine(LOG_INFO, "%s%s read len:%d", kLogClass, kThreadFunction, static_cast<int>(length));
    if (length >= 0) requestRefetch();
  }
}

void PACFetcher::requestRefetch() {
  const Lock lock(mMutex);
  if (mConfig->mode <= manual) return;
  logLine(LOG_NOTICE, "%s%s proxy mode is wpad or pac-url refetch", kLogClass, kThreadFunction);
  mRefetch = true;
  mCondition.notify_one();
}

int PACFetcher::wait_for_changes(int fd, int interval) const {
  logLine(LOG_INFO, "%s%s fd:%d, interval:%d", kLogClass, __func__, fd, interval);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  timeval timeout{interval, 0};
  const int ready = select(FD_SETSIZE, &readable, nullptr, nullptr, &timeout);
  if (ready < 0) logLine(LOG_ERR, "%s%s select error, ret:%d", kLogClass, __func__, ready);
  return ready;
}

// A removed watch queues an event, which wakes the thread out of select. A watch that went with its
// file queues none any more, so one on "/" comes and goes to the same end.
void PACFetcher::removeWatches(bool wakeThread) {
  const Lock lock(mWatchMutex);
  if (mWatchesRemoved || mInotifyFd < 0) return;
  mWatchesRemoved = true;
  for (const int watch : mWatchDescriptors) inotify_rm_watch(mInotifyFd, watch);
  mWatchDescriptors.clear();
  if (wakeThread) inotify_rm_watch(mInotifyFd, inotify_add_watch(mInotifyFd, "/", IN_DELETE_SELF));
}
