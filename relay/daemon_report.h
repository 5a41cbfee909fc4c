// The status line that the daemon sends to systemd. The relay's pages show the age and the source
// of the script from this line. Every user may read this line.
//
// The bus library waits without a limit while it connects, so a separate thread asks systemd. Only
// one thread asks at a time. If another page needs the report meanwhile, it uses the result of the
// same thread.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/daemon_status.h"
#include "relay/loop.h"

namespace relay {

/// How long a page waits for the report. systemd usually answers within milliseconds.
inline constexpr std::chrono::seconds kReportTime{1};

class DaemonReport {
 public:
  explicit DaemonReport(asio::io_context& loop) : mLoop(loop) {}

  /// @return the report; nothing if there is none, if the daemon is not a service of systemd, or if
  ///         no answer comes within kReportTime
  Task<std::optional<base::DaemonStatus>> read();

 private:
  struct Question {
    bool isDone = false;
    std::optional<base::DaemonStatus> status;
    std::vector<Event*> events;
  };
  void start();

  asio::io_context& mLoop;  ///< never destroyed, because the thread may end at any time
  std::shared_ptr<Question> mAsked;
};

}  // namespace relay
