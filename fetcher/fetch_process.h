// proxymanager-fetch as the daemon sees it: one child process for one transfer.
//
// The child parses what a stranger's server sends, so it counts as hostile: each packet is checked,
// each wait has a limit, and a child that does anything but send its two packets and end has
// failed.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "fetcher/wire/packets.h"
#include "sandbox/child_process.h"

namespace fetcher {

using Deadline = std::chrono::steady_clock::time_point;

/// Where the program is: `proxymanager-fetch` in the libexec folder beside the folder of the
/// running program, else where the build installs it.
std::string fetchProgram();

class FetchProcess {
 public:
  /// Starts `program`. Its environment is what libcurl and the C library read there for a download:
  /// the proxy variables and the two of the resolver, as this process has them.
  /// @param problem receives the reason if there is no process
  /// @return the process, or null
  static std::unique_ptr<FetchProcess> start(const std::string& program, std::string& problem);

  /// Sends the request. Does not wait. @return false if the child is gone
  bool send(const FetchRequest& request);

  /// Hands over the file that takes the body; it stays the caller's too. Does not wait.
  /// @return false if the child is gone
  bool sendFile(int file);

  /// Waits for the child's first packet. @return nothing if something else came, see failure()
  std::optional<FetchReady> receiveReady(Deadline deadline);

  /// Waits for the child's one result and for its end. @return nothing if it failed, see failure()
  std::optional<FetchResult> receiveResult(Deadline deadline);

  enum class Failure : std::uint8_t {
    none,
    ended,   ///< the child is gone, or its socket is
    broken,  ///< the child sent something that it must not send
    tooLate  ///< the deadline has passed
  };
  /// Why the last receive returned nothing.
  Failure failure() const { return mFailure; }

  pid_t pid() const { return mChild->pid(); }

  /// Kills the child unless it has ended, and waits for its end. @return how it ended, for the log
  std::string end() { return mChild->end(); }

  /// The daemon's end of the socket pair. shutdown() on it, on any thread, ends a receive.
  int socket() const { return mSocket.get(); }

 private:
  FetchProcess(std::unique_ptr<sandbox::ChildProcess> child, base::UniqueFd socket);
  bool waitReadable(Deadline deadline);
  std::optional<std::string> receive(Deadline deadline);

  base::UniqueFd mSocket;
  std::unique_ptr<sandbox::ChildProcess> mChild;
  Failure mFailure = Failure::none;
};

}  // namespace fetcher
