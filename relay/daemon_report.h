// What the daemon reports to systemd, for the relay's pages: when it was configured, and where its
// script is from. Everybody may read that.
//
// The bus library waits without a limit while it connects, so a thread asks. One asks at a time,
// and pages that want the report meanwhile share it.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/daemon_status.h"
#include "relay/loop.h"

namespace relay {

/// How long a page waits for the report: systemd answers within milliseconds.
inline constexpr std::chrono::seconds kReportTime{1};

class DaemonReport {
 public:
  explicit DaemonReport(asio::io_context& loop) : mLoop(loop) {}

  /// @return the report; nothing if there is none, if the daemon is no service of systemd, or after
  ///         kReportTime
  Task<std::optional<base::DaemonStatus>> read();

 private:
  struct Question {
    bool isDone = false;
    std::optional<base::DaemonStatus> status;
    std::vector<Event*> events;
  };
  void start();

  asio::io_context& mLoop;  ///< lives as long as the process: the thread may end at any time
  std::shared_ptr<Question> mAsked;
};

}  // namespace relay
