#include "fetcher/download.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>

#include "base/ascii.h"
#include "base/log_line.h"
#include "base/unique_fd.h"
#include "fetcher/fetch_process.h"
#include "fetcher/target_file.h"

namespace fetcher {

namespace {

constexpr std::int64_t kTransferSeconds = 30;
constexpr std::int64_t kMostRedirects = 5;
// libcurl's own option ends a transfer 30 s after its start. The child then has a quarter of a
// second to report the result. If the child does not report in this time, it is killed.
constexpr std::chrono::milliseconds kTransferLimit{30250};

bool isWebScheme(const std::string& scheme) {
  return base::equalIgnoringCase(scheme, "http") || base::equalIgnoringCase(scheme, "https");
}

void logMissingLandlockOnce() {
  static std::atomic<bool> isLogged{false};
  if (isLogged.exchange(true)) return;
  logLine(LOG_NOTICE,
          "fetcher: the kernel has no Landlock, the fetch process can read what its user can");
}

std::string textOf(FetchProcess::Failure failure) {
  switch (failure) {
    case FetchProcess::Failure::tooLate:
      return "the transfer took longer than 30 s";
    case FetchProcess::Failure::broken:
      return "the fetch process sent something else than a result";
    default:
      return "the fetch process ended without a result";
  }
}

void logFailure(FetchProcess::Failure failure, const std::string& end) {
  if (failure == FetchProcess::Failure::broken) {
    logLine(LOG_WARNING, "fetcher: the fetch process sent something else than a result (%s)",
            end.c_str());
  } else if (failure == FetchProcess::Failure::ended) {
    logLine(LOG_WARNING, "fetcher: the fetch process ended without a result (%s)", end.c_str());
  }
}

}  // namespace

void TransferSwitch::interrupt() {
  const Lock lock(mMutex);
  mIsInterrupted = true;
  if (mSocket >= 0) shutdown(mSocket, SHUT_RDWR);
}

void TransferSwitch::allow() {
  const Lock lock(mMutex);
  mIsInterrupted = false;
}

/// Registers a transfer's socket with a switch for the lifetime of this object.
class SwitchedTransfer {
 public:
  SwitchedTransfer(TransferSwitch* transferSwitch, int socket) : mSwitch(transferSwitch) {
    if (mSwitch == nullptr) return;
    const Lock lock(mSwitch->mMutex);
    mSwitch->mSocket = socket;
    if (mSwitch->mIsInterrupted) shutdown(socket, SHUT_RDWR);
  }
  ~SwitchedTransfer() {
    if (mSwitch == nullptr) return;
    const Lock lock(mSwitch->mMutex);
    mSwitch->mSocket = -1;
  }
  SwitchedTransfer(const SwitchedTransfer&) = delete;
  SwitchedTransfer& operator=(const SwitchedTransfer&) = delete;

  bool isInterrupted() const {
    if (mSwitch == nullptr) return false;
    const Lock lock(mSwitch->mMutex);
    return mSwitch->mIsInterrupted;
  }

 private:
  TransferSwitch* const mSwitch;
};

namespace {

/// Starts a process and sends it the request. @return the process; null, with the reason in
/// `problem`, after a failure
std::unique_ptr<FetchProcess> startTransfer(const std::string& url, const DownloadOptions& options,
                                            std::string& problem) {
  auto process =
      FetchProcess::start(options.program.empty() ? fetchProgram() : options.program, problem);
  if (!process) return nullptr;
  // libcurl would also refuse a URL that is too long. The child gets an empty URL instead:
  // libcurl's error text for an empty URL is the same.
  const bool fits = url.size() <= kMostUrlBytes;
  process->send(
      {kTransferSeconds, kMostScriptBytes, kMostRedirects, fits ? url.c_str() : std::string()});
  return process;
}

/// Waits until the child reports a libcurl handle. An interrupted transfer counts as ready: it
/// fails later and then logs the lines of a failed transfer. @return false with the reason in
/// `problem`
bool waitUntilReady(FetchProcess& process, const SwitchedTransfer& switched, Deadline deadline,
                    std::string& problem) {
  const auto ready = process.receiveReady(deadline);
  if (switched.isInterrupted()) return true;
  if (!ready) {
    problem = textOf(process.failure()) + " (" + process.end() + ")";
    return false;
  }
  if (ready->state == FetchReady::State::noHandle) problem = "libcurl gave no handle";
  if (ready->state == FetchReady::State::noWalls) {
    problem = "the walls of the fetch process cannot be raised: " + ready->problem;
  }
  if (ready->state != FetchReady::State::ready) return false;
  if (!ready->limitsFiles) logMissingLandlockOnce();
  return true;
}

/// Checks a transfer that libcurl reports as successful: the scheme after the redirects, and the
/// length of the body.
std::string judge(const FetchResult& result, int file) {
  if (!result.success) return result.error.empty() ? "failed" : result.error;
  if (!isWebScheme(result.scheme)) return "the transfer ended at a scheme that is not of the web";
  struct stat status {};
  if (fstat(file, &status) != 0 || status.st_size > kMostScriptBytes) {
    return "the file is longer than a script may be";
  }
  return {};
}

/// Makes the transfer itself, into `file`. @return the error; empty on success
std::string transfer(FetchProcess& process, int file, const SwitchedTransfer& switched,
                     Deadline deadline, int& responseCode) {
  process.sendFile(file);
  const auto result = process.receiveResult(deadline);
  const std::string end = process.end();
  if (switched.isInterrupted()) return "interrupted by another configuration";
  if (!result) {
    const std::string error = textOf(process.failure());
    logFailure(process.failure(), end);
    return error;
  }
  responseCode = result->responseCode;
  // A process that still runs could change the file after the check, and so also the script in
  // force.
  if (!process.isGone()) return "the fetch process does not end";
  return judge(*result, file);
}

}  // namespace

Download download(const std::string& url, const std::string& targetFile,
                  const DownloadOptions& options) {
  logLine(LOG_INFO, "PACFetcher-fileDownload called");
  const Deadline deadline = std::chrono::steady_clock::now() + kTransferLimit;
  std::string problem;
  const auto process = startTransfer(url, options, problem);
  const SwitchedTransfer switched(options.transferSwitch, process ? process->socket() : -1);
  if (!process || !waitUntilReady(*process, switched, deadline, problem)) {
    logLine(LOG_ERR, "fetcher: no download: %s", problem.c_str());
    logLine(LOG_ERR,
            "PACFetcher-fileDownload failed to initialize curl handle! url:%s, target_file:%s",
            url.c_str(), targetFile.c_str());
    return {false, problem};
  }
  base::UniqueFd file = createTargetFile(targetFile);
  if (!file) {
    logLine(LOG_ERR, "PACFetcher-fileDownload failed to open file %s, url:%s", targetFile.c_str(),
            url.c_str());
    return {false, "no temporary file"};
  }
  int code = 0;
  const std::string error = transfer(*process, file.get(), switched, deadline, code);
  file.reset();
  const bool success = error.empty();
  logLine(LOG_DEBUG, "PACFetcher-fileDownload result success:%s, code:%d",
          success ? "true" : "false", code);
  if (success) return {true, {}};
  const int removed = std::remove(targetFile.c_str());
  logLine(LOG_ERR,
          "PACFetcher-fileDownload failed to remove file %s after unsuccessful download: %d",
          targetFile.c_str(), removed);
  return {false, error};
}

}  // namespace fetcher
