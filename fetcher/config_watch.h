// Notices when the network configuration changes: inotify watches on the lease and on the resolver
// file.
//
// The files are watched, not their folders, and events are not decoded: any event on either file
// counts as a change, touch and chmod included. A file is watched only if the daemon would also
// read it: a regular file of root or of the daemon's user, with one name, and not a link. It is
// watched through the descriptor with which it was opened. A file that is missing when the watch
// begins is not watched, and a watch ends with its file.
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
  static constexpr std::size_t kEventBytes = 4096;  ///< about 200 events

  ConfigWatch();

  /// Cancels an earlier end(). To be called before the watch thread starts.
  void begin() PM_EXCLUDES(mMutex);

  /// Makes the inotify descriptor. A descriptor that is too large for select counts as none.
  /// @return the descriptor; negative, after a LOG_ERR line, if there is none
  int open() PM_EXCLUDES(mMutex);

  /// Sets the watches. @return false if no file can be watched
  bool addWatches() PM_EXCLUDES(mMutex);

  /// Reads all events that wait into `buffer`, which has kEventBytes. Each read logs one line.
  /// @return whether there were events
  bool readEvents(char* buffer);

  /// Waits for `duration`, so that all events during this wait count as one. end() ends the wait.
  void pause(std::chrono::milliseconds duration) PM_EXCLUDES(mMutex);

  /// Removes the watches, and closes the descriptor.
  void close() PM_EXCLUDES(mMutex);

  /// Removes the watches once, and wakes the watch thread out of select and pause(). Any thread.
  void end() PM_EXCLUDES(mMutex);

 private:
  void removeWatches(bool wakeThread) PM_REQUIRES(mMutex);

  Mutex mMutex;  // a leaf
  int mInotifyFd PM_GUARDED_BY(mMutex) = -1;
  std::vector<int> mWatchDescriptors PM_GUARDED_BY(mMutex);
  bool mWatchesRemoved PM_GUARDED_BY(mMutex) = false;
  bool mIsEnding PM_GUARDED_BY(mMutex) = false;
  std::condition_variable mEnding;  // with mMutex
};

}  // namespace fetcher
