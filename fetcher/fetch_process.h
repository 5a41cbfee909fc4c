// proxymanager-fetch from the daemon's side: one child process for one transfer.
//
// The child process parses what a foreign server sends, so this side treats it as hostile: each
// packet is checked and each wait has a limit. The child sends two packets and ends. Everything
// else counts as a failure.
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

/// The path of the program: `proxymanager-fetch` in the libexec folder next to the folder of the
/// running program. If the program is not there, the result is the path at which the build installs
/// it.
std::string fetchProgram();

class FetchProcess {
 public:
  /// Starts `program`. The child gets only those environment variables of this process that libcurl
  /// and the C library read for a download: the proxy variables and two variables of the resolver.
  /// @param problem receives the reason if there is no process
  /// @return the process, or null
  static std::unique_ptr<FetchProcess> start(const std::string& program, std::string& problem);

  /// Sends the request. Does not wait. @return false if the child is gone
  bool send(const FetchRequest& request);

  /// Passes the file for the body to the child; the caller keeps its descriptor. Does not wait.
  /// @return false if the child is gone
  bool sendFile(int file);

  /// Waits for the child's first packet. @return nothing if anything else arrived; failure() then
  /// has the reason
  std::optional<FetchReady> receiveReady(Deadline deadline);

  /// Waits for the child's result and then for its end. @return nothing after a failure; failure()
  /// then has the reason
  std::optional<FetchResult> receiveResult(Deadline deadline);

  enum class Failure : std::uint8_t {
    none,
    ended,   ///< the child or its socket is gone
    broken,  ///< the child sent a packet that it must not send
    tooLate  ///< the deadline has passed
  };
  /// Why the last receive...() returned nothing.
  Failure failure() const { return mFailure; }

  pid_t pid() const { return mChild->pid(); }

  /// Kills the child unless it has ended, and waits for its end. @return how it ended, for the log
  std::string end() { return mChild->end(); }

  /// @return whether end() has seen the child's end. After that, no other process can write to the
  /// file
  bool isGone() const { return mChild->isGone(); }

  /// The daemon's end of the socket pair. A shutdown() of this socket, on any thread, ends a
  /// receive.
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
