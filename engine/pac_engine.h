// The C++ interface of the PAC evaluation library. It does what pac.h does. In addition, its
// callers (proxymanagerctl and tests) get the reason for a refusal and may set clock, zone, names
// and addresses.
//
// A script never runs in this process. Engine starts `proxymanager-pac-worker`, passes the script
// to this worker in a sealed memory file, and sends it questions over a socket pair. While Engine
// waits for an answer, it does the worker's name lookups on the calling thread. A worker that does
// not answer in time is killed. If a worker dies for any reason, the question in progress has no
// answer. The next question starts a new worker; the start is part of that question's 5 s. The
// library has no threads.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/name_source.h"
#include "engine/wire/reply.h"

namespace pac_engine {

/// A worker is killed this long after its time limit. The worker's own engine stops a script at the
/// limit, so only a stopped or broken worker is killed.
inline constexpr std::chrono::milliseconds kKillGrace{250};

/// The role of a worker. The daemon uses only workers with the role kAnswers.
enum class WorkerRole : std::uint8_t {
  kAnswers,  ///< proxymanager-pac-worker: loads the script and answers questions
  kTraces,   ///< proxymanager-workbench: as kAnswers, but for an instrumented script; the command
             ///< "trace" reports the records that the worker has made since the last "trace"
  kParses    ///< proxymanager-workbench: parses the script for commands, and never runs the script
};

/// Longest report of a command, in bytes: an instrumented script with the list of its places.
inline constexpr std::size_t kMaxWholeReportBytes = 64U << 20U;

struct Options {
  NameSource names;  ///< with `offline`, the own address is the loopback address
  std::optional<std::vector<std::string>> ownAddresses;  ///< used instead of the device's addresses
  std::optional<std::int64_t> clock;  ///< fixed time for the date helpers, seconds since 1970
  std::string zone;                   ///< TZ of the date helpers; empty for the device's zone
  std::chrono::milliseconds timeLimit{5000};  ///< limit for a load or an evaluation
  std::string workerProgram;                  ///< empty for the installed program
  WorkerRole role = WorkerRole::kAnswers;
  /// Kill the worker when the thread that started it ends. If this option is false and this process
  /// is killed, a busy worker may run until 1 s after its time limit. Set the option only if one
  /// thread uses the engine.
  bool endsWithCaller = false;
};

/// "line 3: message", or only the message if no line is known.
std::string describe(const Problem& problem);

/// One loaded script. Two threads must not use it at the same time. It throws only bad_alloc.
class Engine {
 public:
  /// Starts a worker and loads `script`, the bytes of a PAC file. Waits for timeLimit and
  /// kKillGrace at most.
  /// @param refused receives the reason if there is no engine
  /// @return an engine, or null
  static std::unique_ptr<Engine> load(std::string_view script, Options options, Problem& refused);

  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  /// Calls FindProxyForURL(url, host). The script sees only the allowed parts of `url` (pac.h).
  /// Waits for timeLimit and kKillGrace at most.
  Reply evaluate(std::string_view url, std::string_view host);

  /// Runs the command `name` in a worker of the workbench, with `argument` (docs/architecture.md
  /// lists the commands). Waits as long as evaluate(). `name` has at most kMaxCommandBytes bytes,
  /// and `argument` at most kMaxArgumentBytes.
  /// @param problem receives the reason if there is no report
  /// @return the report, UTF-8, usually JSON
  std::optional<std::string> command(std::string_view name, std::string_view argument,
                                     Problem& problem);

  /// The process id of the worker, which may have ended already. 0 if the next question starts a
  /// new worker.
  pid_t workerPid() const;

 private:
  struct Impl;
  explicit Engine(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> mImpl;
};

}  // namespace pac_engine
