// Downloads one URL into one file, in a separate process: proxymanager-fetch.
//
// Only that process parses HTTP, TLS, redirects and certificates of a foreign server, and it does
// so in a sandbox (fetcher/child/walls.h). The daemon's side (this file) checks each report of that
// process. If a server takes control of the process, it can spoil only its own download. This side
// also enforces the time limit: a transfer ends 30 s after its start, even if resolver, server or
// child process do not answer.
#pragma once

#include <string>

#include "base/mutex.h"

namespace fetcher {

/// With this class, one thread ends the transfer of another thread. Any thread may call its
/// functions.
class TransferSwitch {
 public:
  /// Ends the transfer in progress, and each transfer that begins before the next allow().
  void interrupt() PM_EXCLUDES(mMutex);
  /// Allows transfers again.
  void allow() PM_EXCLUDES(mMutex);

 private:
  friend class SwitchedTransfer;

  Mutex mMutex;
  bool mIsInterrupted PM_GUARDED_BY(mMutex) = false;
  int mSocket PM_GUARDED_BY(mMutex) = -1;  ///< socket of the transfer in progress; -1 for none
};

struct DownloadOptions {
  TransferSwitch* transferSwitch = nullptr;  ///< may be null; outlives the call
  std::string program;  ///< path of the fetch process's program; empty: fetchProgram()
};

struct Download {
  bool success = false;
  std::string error;  ///< why the download failed, in printable ASCII; empty after a success
};

/// Implements PACFetcher::fileDownload, and logs the lines of that function. One thread at a time.
Download download(const std::string& url, const std::string& targetFile,
                  const DownloadOptions& options = {});

}  // namespace fetcher
