// Access to the parts of a fetcher that only tests use.
#pragma once

#include "fetcher/pac_fetcher.h"

struct PACFetcherTestAccess {
  /// The walk, on this thread, as the fetcher thread does it.
  static int retrieve(PACFetcher& fetcher) {
    const Lock lock(fetcher.mMutex);
    return fetcher.retrievePacFile();
  }
  static int waitForChanges(PACFetcher& fetcher, int fd, int interval) {
    return fetcher.wait_for_changes(fd, interval);
  }
  /// Clears the flag that says that the threads run, while they do.
  static void pretendStopped(PACFetcher& fetcher) { fetcher.mRunning = false; }
};
