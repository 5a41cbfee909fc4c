// proxymanagerd: start-up, the wait, and the end.
//
// The work happens on the service's threads; this one only sleeps. SIGTERM and SIGHUP are blocked
// in every thread and let through to this one only while it sleeps, atomically, so that their
// handlers run where nothing holds a lock and may log.

#include <poll.h>
#include <unistd.h>

#include <clocale>
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
volatile std::sig_atomic_t g_time_to_quit = 0;

namespace {

constexpr const char* kProcessName = "proxymanagerd";
constexpr const char* kServiceName = "proxymanager_service";
constexpr const char* kNoClass = "";
// LOG_PID, LOG_NDELAY and the bit 0x40, which this platform's syslog ignores.
constexpr int kLogOptions = 0x49;

void receive_signal(int signo) {
  logLine(LOG_INFO, "%s%s SIGNAL(%d) received to exit the process", kNoClass, "receive_signal",
          signo);
  g_time_to_quit = 1;
}

void change_trace_level(int) {
  settrcvalues(kProcessName, nullptr);
}

void initTrace() {
  logLine(LOG_NOTICE, "%s%s Set trace values at bootup for proxymanager_service", kNoClass,
          "initTrace");
  TraceValues trace{};
  if (settrcvalues(kProcessName, &trace) != 0) {
    logLine(LOG_ERR, "%s%s Error while setting trace values", kNoClass, "initTrace");
    return;
  }
  logLine(LOG_DEBUG,
          "%s%s \tbaseseverity  = %d\n\t\t\tpersistent    = %d\n\t\t\ttracemask     = %05X\n"
          "\t\t\toption/data   = %X/%X (%d/%d)\n",
          kNoClass, "initTrace", trace.baseseverity, trace.persistent,
          static_cast<unsigned>(trace.tracemask), static_cast<unsigned>(trace.option),
          static_cast<unsigned>(trace.data), trace.option, trace.data);
}

std::unique_ptr<SlService> create_proxymanager_service() {
  logLine(LOG_INFO, "%s%s called ", kNoClass, "create_proxymanager_service");
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
    logLine(LOG_ERR, "%s%s restart_connect failed\n", kNoClass, "main");
  }
  if (initCrashHandler() == -1) {
    logLine(LOG_ERR, "%s%s Unable to initialize the crash handler library\n", kNoClass, "main");
  }
}

}  // namespace

int main() {
  // URLs are UTF-8: so that libcurl takes international names in them for what they are.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  openlog(kServiceName, kLogOptions, LOG_LOCAL0);
  if (create_varrunpid(kProcessName) != 0) {
    logLine(LOG_ERR, "%s%s Only one instance of proxymanager_service can run at a time", kNoClass,
            "main");
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
    logLine(LOG_ERR, "%s%s the service cannot start: %s", kNoClass, "main", error.what());
    return EXIT_FAILURE;
  }
  while (g_time_to_quit == 0) {
    sleepLettingThrough(open);
    feedWatchdog();
  }
  logLine(LOG_INFO, "%s%s Stop proxymanager Service", kNoClass, "main");
  notifyStopping();
  service.reset();
  return EXIT_SUCCESS;
}
