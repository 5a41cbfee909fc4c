#include "platform/process/crash_handler.h"

// The handler unwinds only its own process. The library's functions for this are cheaper, and a
// signal handler may call them.
#define UNW_LOCAL_ONLY
#include <dlfcn.h>
#include <libunwind.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/ucontext.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log_line.h"

namespace {

constexpr std::array kFatalSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS};
// Further frames are left out. In an endless recursion, the frames repeat long before this limit.
constexpr int kFrameLimit = 64;
// This is several times the space that the unwinder's frames, the cursor (1 KiB each) and a line
// need.
constexpr std::size_t kStackBytes = 64UL * 1024;
// Time limit of the whole report, in seconds. After that, SIGALRM ends the process.
constexpr unsigned kReportSeconds = 5;
// How long a line waits if stderr or the log is full.
constexpr int kWaitMilliseconds = 100;

// The data that a handler needs. It is written before the first signal, and only read afterwards.
struct Prepared {
  int logSocket = -1;
  sockaddr_un logAddress{};
  /// Whether stderr is the journal: a line that is also written to stderr would then be in the
  /// journal twice.
  bool stderrIsJournal = false;
};
Prepared prepared;
// This stack is separate from `Prepared`, whose initial values are not all zero. So the program's
// file does not contain the stack, and the stack uses no memory until a signal handler runs.
alignas(16) std::array<char, kStackBytes> stackOfHandlers{};

// The thread that writes the report; 0 if there is no report yet.
std::atomic<pid_t> reporter{0};
static_assert(std::atomic<pid_t>::is_always_lock_free);

/// A line of text in a buffer of fixed size; a longer text is cut.
class Line {
 public:
  Line& text(std::string_view more) {
    const std::size_t taken = std::min(more.size(), mBytes.size() - 1 - mLength);
    std::memcpy(mBytes.data() + mLength, more.data(), taken);
    mLength += taken;
    return *this;
  }
  Line& decimal(long number) {
    if (number < 0) text("-");
    const auto size = static_cast<unsigned long>(number);
    return digits(number < 0 ? 0 - size : size, 10, 1);
  }
  Line& hex(std::uintptr_t number, int least = 1) { return text("0x").digits(number, 16, least); }
  /// The text with a newline, whether or not it was cut.
  std::string_view withNewline() {
    mBytes[mLength] = '\n';
    return {mBytes.data(), mLength + 1};
  }
  std::string_view view() const { return {mBytes.data(), mLength}; }

 private:
  Line& digits(unsigned long number, unsigned base, int least) {
    std::array<char, 24> reversed;
    int count = 0;
    for (; number != 0 || count < least; number /= base) {
      reversed[static_cast<std::size_t>(count++)] = "0123456789abcdef"[number % base];
    }
    while (count > 0) text({&reversed[static_cast<std::size_t>(--count)], 1});
    return *this;
  }

  std::array<char, 512> mBytes;
  std::size_t mLength = 0;
};

/// Writes lines to the log and to stderr. If one of them accepts no line, nothing more is written
/// to it.
class Report {
 public:
  void write(Line& line) {
    if (mLogTakes) writeToLog(line.view());
    if (mLogTakes && prepared.stderrIsJournal) return;
    if (mStderrTakes) writeToStderr(line.withNewline());
  }

 private:
  void writeToStderr(std::string_view bytes) {
    pollfd file{STDERR_FILENO, POLLOUT, 0};
    mStderrTakes = poll(&file, 1, kWaitMilliseconds) == 1 && (file.revents & POLLOUT) != 0 &&
                   ::write(STDERR_FILENO, bytes.data(), bytes.size()) >= 0;
  }

  void writeToLog(std::string_view text) {
    Line line;
    line.text("<").decimal(LOG_LOCAL0 | LOG_CRIT).text(">").text(kLogIdent);
    line.text("[").decimal(getpid()).text("]: ").text(text);
    const auto bytes = line.view();
    mLogTakes = sendto(prepared.logSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL,
                       reinterpret_cast<const sockaddr*>(&prepared.logAddress),
                       sizeof prepared.logAddress) >= 0;
  }

  bool mStderrTakes = true;
  bool mLogTakes = prepared.logSocket >= 0;
};

// Adds the module and the function of `address`, from the loader's tables. unw_get_proc_name would
// map files and allocate, so a crash in the allocator would hang. A return address may already be
// the first address of the next function, so `looked` is the address to search for.
void appendPlace(Line& line, std::uintptr_t address, std::uintptr_t looked) {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(looked), &info) == 0) return;
  const char* const slash = std::strrchr(info.dli_fname, '/');
  line.text(" ").text(slash != nullptr ? slash + 1 : info.dli_fname);
  line.text("+").hex(address - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
  if (info.dli_sname == nullptr) return;
  line.text(" (").text(info.dli_sname).text("+");
  line.hex(address - reinterpret_cast<std::uintptr_t>(info.dli_saddr)).text(")");
}

void reportFrame(Report& report, int number, unw_cursor_t& cursor) {
  unw_word_t address = 0;
  unw_get_reg(&cursor, UNW_REG_IP, &address);
  Line line;
  line.text("process: #").decimal(number).text(" ").hex(address, 16);
  appendPlace(line, address, number == 0 ? address : address - 1);
  report.write(line);
}

/// The interrupted state in the unwinder's form. Usually this is the kernel's record. On 32-bit
/// Arm, it is the unwinder's own record, filled with r0 to r15.
#ifdef __arm__
unw_context_t* interrupted(void* context) {
  static unw_context_t registers;  // there is only one report in a process
  static_assert(sizeof registers == 16 * sizeof(mcontext_t::arm_r0));
  std::memcpy(&registers, &static_cast<ucontext_t*>(context)->uc_mcontext.arm_r0, sizeof registers);
  return &registers;
}
#else
unw_context_t* interrupted(void* context) {
  return static_cast<unw_context_t*>(context);
}
#endif

void reportTrace(Report& report, void* context) {
  unw_cursor_t cursor;
  if (unw_init_local2(&cursor, interrupted(context), UNW_INIT_SIGNAL_FRAME) != 0) return;
  for (int number = 0; number < kFrameLimit; ++number) {
    reportFrame(report, number, cursor);
    if (unw_step(&cursor) <= 0) return;
  }
}

void reportSignal(Report& report, const siginfo_t& info) {
  Line line;
  line.text("process: fatal signal ").decimal(info.si_signo);
  const char* const name = sigabbrev_np(info.si_signo);
  if (name != nullptr) line.text(" (SIG").text(name).text(")");
  if (info.si_code <= 0) {
    line.text(" sent by process ").decimal(info.si_pid);
  } else {
    line.text(" at ").hex(reinterpret_cast<std::uintptr_t>(info.si_addr));
  }
  char thread[16]{};
  prctl(PR_GET_NAME, thread);
  line.text(" in thread ").text(thread).text(" (").decimal(gettid()).text(")");
  report.write(line);
}

// Sends the signal again, now with its default action. The signal is blocked while the handler
// runs, and takes effect when the handler returns. So the core dump shows the place that was
// interrupted.
void dieBy(siginfo_t& info) {
  std::signal(info.si_signo, SIG_DFL);
  // The signal is sent with its details. If the kernel refuses this, the signal is sent without
  // them.
  if (syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), info.si_signo, &info) != 0) {
    raise(info.si_signo);
  }
}

// Makes sure that a hanging report ends, even if this thread has blocked SIGALRM.
void limitReport() {
  std::signal(SIGALRM, SIG_DFL);
  sigset_t alarmOnly;
  sigemptyset(&alarmOnly);
  sigaddset(&alarmOnly, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
  alarm(kReportSeconds);
}

void onFatalSignal(int, siginfo_t* info, void* context) {
  pid_t none = 0;
  if (!reporter.compare_exchange_strong(none, gettid())) {
    // The report itself has crashed, so there is no second report.
    if (none == gettid()) return dieBy(*info);
    // Another thread writes the report and will end the process.
    for (;;) pause();
  }
  limitReport();
  Report report;
  reportSignal(report, *info);
  reportTrace(report, context);
  dieBy(*info);
}

void openLog() {
  prepared.logAddress.sun_family = AF_UNIX;
  strncpy(prepared.logAddress.sun_path, "/dev/log", sizeof prepared.logAddress.sun_path - 1);
  if (prepared.logSocket >= 0) return;
  prepared.logSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval wait{0, kWaitMilliseconds * 1000L};
  setsockopt(prepared.logSocket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

// If systemd connects a stream to the journal, the variable JOURNAL_STREAM has the stream's
// DEVICE:INODE (systemd.exec(5)).
bool isJournal(int fd) {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(fd, &status) != 0) return false;
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

// The unwinder fills its tables at its first use. This first use should not happen in the handler.
void warmUnwinder() {
#ifdef __arm__
  // On 32-bit Arm, the unwinder must use only the tables of this architecture (method 4). Otherwise
  // it first looks for tables of other architectures, and ends at the first frame. The unwinder
  // reads this variable at its first use.
  setenv("UNW_ARM_UNWIND_METHOD", "4", 0);
#endif
  unw_context_t context;
  unw_cursor_t cursor;
  unw_getcontext(&context);
  if (unw_init_local(&cursor, &context) != 0) return;
  unw_step(&cursor);
}

bool installHandlers() {
  stack_t stack{};
  stack.ss_sp = stackOfHandlers.data();
  stack.ss_size = stackOfHandlers.size();
  if (sigaltstack(&stack, nullptr) != 0) return false;
  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (const int number : kFatalSignals) {
    if (sigaction(number, &action, nullptr) != 0) return false;
  }
  return true;
}

}  // namespace

int initCrashHandler() {
  openLog();
  prepared.stderrIsJournal = isJournal(STDERR_FILENO);
  warmUnwinder();
  if (installHandlers()) return 0;
  logLine(LOG_ERR, "process: cannot install the crash handler: %s", std::strerror(errno));
  return -1;
}
