// proxymanagerd: start-up, the wait, and the end.
//
// The work happens on the service's threads; this one only sleeps. SIGTERM and SIGHUP are blocked
// in every thread and let through to this one only while it sleeps, atomically, so that their
// handlers run where nothing holds a lock and may log.

#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>

#include "base/log_line.h"
#include "platform/process/crash_handler.h"
#include "platform/process/run_file.h"
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
constexpr const char* kServiceName = "proxymanager_service";
// LOG_PID, LOG_NDELAY and the bit 0x40, which this platform's syslog ignores.
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

/// Blocks the two signals in this thread, and so in those it starts.
/// @return the mask under which they get through
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

/// Sleeps until a signal was handled or the time is over.
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

}  // namespace

int main() {
  // A child process with this one's user could otherwise open /proc/PID/mem and write to it.
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  openlog(kServiceName, kLogOptions, LOG_LOCAL0);
  if (create_varrunpid(kProcessName) != 0) {
    logLine(LOG_ERR, "main Only one instance of proxymanager_service can run at a time");
    std::exit(EXIT_FAILURE);
  }
  const sigset_t open = blockSignals();
  initTrace();
  registerProcess();
  std::signal(SIGTERM, receive_signal);
  std::signal(SIGHUP, change_trace_level);
  pthread_name_np(gettid(), kServiceName);

  std::unique_ptr<SlService> service;
  try {
    service = create_proxymanager_service();
    service->start();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "main the service cannot start: %s", error.what());
    return EXIT_FAILURE;
  }
  while (!g_time_to_quit) {
    sleepLettingThrough(open);
    feedWatchdog();
  }
  logLine(LOG_INFO, "main Stop proxymanager Service");
  notifyStopping();
  service.reset();
  return EXIT_SUCCESS;
}
