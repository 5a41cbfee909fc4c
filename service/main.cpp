// proxymanagerd: its start, its main loop and its end.
//
// The service's threads do the work; the main thread only sleeps and feeds the watchdog. SIGTERM
// and SIGHUP are blocked in every thread. The main thread unblocks them only during its sleep:
// ppoll() changes the mask and sleeps in one step. So their handlers run while the main thread
// holds no lock, and the handlers may log.

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/log_line.h"
#include "platform/process/crash_handler.h"
#include "platform/process/run_file.h"
#include "platform/process/self_limits.h"
#include "platform/process/sl_service.h"
#include "platform/process/supervisor.h"
#include "platform/process/thread_name.h"
#include "platform/process/trace.h"
#include "service/proxy_manager_service_impl.h"

/// Set by the termination handler, read by the main loop.
std::atomic<bool> g_time_to_quit{false};
static_assert(sizeof g_time_to_quit == 1);
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler writes it");

namespace {

constexpr const char* kProcessName = "proxymanagerd";
constexpr char kUsage[] =
    "usage: proxymanagerd [--help | --version]\n"
    "\n"
    "Answers programs that ask over D-Bus which HTTP proxy to use for a URL. It runs in the\n"
    "foreground until SIGTERM; SIGHUP reads /etc/proxymanagerd/trace.conf again. A supervisor\n"
    "normally starts it: systemctl start proxymanagerd. See proxymanagerd(8).\n";
// The options LOG_PID and LOG_NDELAY, and the bit 0x40. This platform's syslog ignores that bit.
constexpr int kLogOptions = 0x49;

void receive_signal(int signo) {
  logLine(LOG_INFO, "receive_signal SIGNAL(%d) received to exit the process", signo);
  g_time_to_quit = true;
}

void change_trace_level(int) {
  settrcvalues(kProcessName, nullptr);
}

void initTrace() {
  logLine(LOG_NOTICE, "initTrace Set trace values at bootup for proxymanager_service");
  TraceValues trace{};
  if (settrcvalues(kProcessName, &trace) != 0) {
    logLine(LOG_ERR, "initTrace Error while setting trace values");
    return;
  }
  logLine(LOG_DEBUG,
          "initTrace \tbaseseverity  = %d\n\t\t\tpersistent    = %d\n\t\t\ttracemask     = %05X\n"
          "\t\t\toption/data   = %X/%X (%d/%d)\n",
          trace.baseseverity, trace.persistent, static_cast<unsigned>(trace.tracemask),
          static_cast<unsigned>(trace.option), static_cast<unsigned>(trace.data), trace.option,
          trace.data);
}

std::unique_ptr<SlService> create_proxymanager_service() {
  logLine(LOG_INFO, "create_proxymanager_service called ");
  return std::make_unique<ProxyManagerServiceImpl>();
}

/// Blocks SIGTERM and SIGHUP in this thread, and so also in the threads that this thread starts.
/// @return the mask that unblocks them
sigset_t blockSignals() {
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGTERM);
  sigaddset(&handled, SIGHUP);
  sigset_t open;
  pthread_sigmask(SIG_BLOCK, &handled, &open);
  sigdelset(&open, SIGTERM);
  sigdelset(&open, SIGHUP);
  return open;
}

/// Sleeps until a signal has been handled, but at most for kWatchdogFeedInterval.
void sleepLettingThrough(const sigset_t& open) {
  const timespec limit{kWatchdogFeedInterval.count(), 0};
  ppoll(nullptr, 0, &limit, &open);
}

void registerProcess() {
  if (restart_connect(kProcessName) != 0) {
    logLine(LOG_ERR, "main restart_connect failed\n");
  }
  if (initCrashHandler() == -1) {
    logLine(LOG_ERR, "main Unable to initialize the crash handler library\n");
  }
}

/// Writes `problem` to stderr if stderr is a terminal. This helps a person who starts the daemon by
/// hand and does not read the log.
void showOnTerminal(const std::string& problem) {
  if (isatty(STDERR_FILENO) != 1) return;
  std::fprintf(stderr, "%s: %s\n", kProcessName, problem.c_str());
}

/// Prints the help or the version if the first argument requests it. Ignores unknown arguments,
/// because a supervisor may pass some.
/// @return whether a text was printed
bool printedWhatWasAskedFor(int argc, char** argv) {
  const std::string_view argument = argc > 1 ? argv[1] : "";
  if (argument == "--help") {
    std::fputs(kUsage, stdout);
  } else if (argument == "--version") {
    std::printf("%s %s\n", kProcessName, PROXYMANAGER_VERSION);
  } else {
    if (argc > 1) showOnTerminal(std::string("arguments are ignored; see --help: ") + argv[1]);
    return false;
  }
  return true;
}

/// main() calls this function before it starts a thread and before the process has a secret.
void limitItself() {
  process::forbidDumps();
  process::keepCapabilitiesFromChildren();
  process::returnFreedMemory();
  // Replaces the file mode mask of the supervisor, because all users must be able to read the
  // script.
  umask(S_IWGRP | S_IWOTH);
}

/// Deletes the service on a separate thread. The deletion waits for all work in progress, such as a
/// download. Meanwhile the calling thread feeds the watchdog, so that the supervisor does not
/// regard the wait as a hang.
void stopService(std::unique_ptr<SlService> service) {
  std::future<void> stopped;
  try {
    stopped = std::async(std::launch::async, [&service] { service.reset(); });
  } catch (const std::system_error&) {
    return;  // no thread can be started: the end of this function deletes the service
  }
  while (stopped.wait_for(kWatchdogFeedInterval) != std::future_status::ready) feedWatchdog();
}

}  // namespace

int main(int argc, char** argv) {
  if (printedWhatWasAskedFor(argc, argv)) {
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  openlog(kLogIdent, kLogOptions, LOG_LOCAL0);
  limitItself();
  if (create_varrunpid(kProcessName) != 0) {
    logLine(LOG_ERR, "main Only one instance of proxymanager_service can run at a time");
    showOnTerminal("another instance runs, or its run file cannot be taken; the log has more");
    std::exit(EXIT_FAILURE);
  }
  const sigset_t open = blockSignals();
  initTrace();
  registerProcess();
  std::signal(SIGTERM, receive_signal);
  std::signal(SIGHUP, change_trace_level);
  pthread_name_np(gettid(), kLogIdent);

  std::unique_ptr<SlService> service;
  try {
    service = create_proxymanager_service();
    service->start();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "main the service cannot start: %s", error.what());
    showOnTerminal(std::string("the service cannot start: ") + error.what());
    return EXIT_FAILURE;
  }
  while (!g_time_to_quit) {
    sleepLettingThrough(open);
    feedWatchdog();
  }
  logLine(LOG_INFO, "main Stop proxymanager Service");
  notifyStopping();
  stopService(std::move(service));
  return EXIT_SUCCESS;
}
