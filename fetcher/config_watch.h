// Notices changes of the network configuration, with inotify watches on the lease and on the
// resolver file.
//
// The files are watched, not their folders. Events are not decoded: any event on one of the files
// counts as a change, also touch and chmod. A file is watched only if the daemon would also read
// it: it is a regular file of root or of the daemon's user, has only one name, and is not a link.
// The watch is set through the descriptor of the opened file. A file that is missing when the watch
// begins is not watched. If a file is removed, its watch ends.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <vector>

#include "base/mutex.h"

namespace fetcher {

/// Implements PACFetcher::wait_for_changes.
int waitForChanges(int fd, int interval);

/// The watch thread calls all functions except begin() and end().
class ConfigWatch {
 public:
  static constexpr std::size_t kEventBytes = 4096;  ///< for one read: about 200 events

  ConfigWatch();

  /// Cancels an earlier end(). Call it before the watch thread starts.
  void begin() PM_EXCLUDES(mMutex);

  /// Makes the inotify descriptor. If the descriptor's number is too large for select, the call
  /// fails.
  /// @return the descriptor; negative, after a LOG_ERR line, if there is none
  int open() PM_EXCLUDES(mMutex);

  /// Sets the watches. @return false if no file can be watched
  bool addWatches() PM_EXCLUDES(mMutex);

  /// Reads all waiting events into `buffer`, which has kEventBytes bytes. Each read logs one line.
  /// @return whether there were events
  bool readEvents(char* buffer);

  /// Waits for `duration`, so that all events during this wait count as one event. end() ends the
  /// wait.
  void pause(std::chrono::milliseconds duration) PM_EXCLUDES(mMutex);

  /// Removes the watches, and closes the descriptor.
  void close() PM_EXCLUDES(mMutex);

  /// Removes the watches once, and wakes the watch thread from select and from pause(). Any thread.
  void end() PM_EXCLUDES(mMutex);

 private:
  void removeWatches(bool wakeThread) PM_REQUIRES(mMutex);

  Mutex mMutex;  // a thread that holds it takes no other lock
  int mInotifyFd PM_GUARDED_BY(mMutex) = -1;
  std::vector<int> mWatchDescriptors PM_GUARDED_BY(mMutex);
  bool mWatchesRemoved PM_GUARDED_BY(mMutex) = false;
  bool mIsEnding PM_GUARDED_BY(mMutex) = false;
  std::condition_variable mEnding;  // ends pause(); used with mMutex
};

}  // namespace fetcher
