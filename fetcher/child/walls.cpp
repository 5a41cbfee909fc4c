#include "fetcher/child/walls.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <utility>
#include <vector>

#include "sandbox/file_access.h"

#if PROXYMANAGER_SECCOMP
#include "sandbox/system_calls.h"
#endif

namespace fetch_child {

namespace {

using sandbox::Failure;

// Maximum address space of a download. It has room for libcurl with its libraries (40 MiB), the
// stacks of the threads that look up names, and a certificate chain of 10 MiB, read and parsed. If
// a server sends endless headers, the process reaches the limit, and the transfer fails.
constexpr rlim_t kAddressSpaceBytes = rlim_t{160} << 20U;
// The stack of a thread that looks up a name. Without this value, the C library uses the stack
// limit of the daemon as the size of such a stack; this may be a large part of the address space.
constexpr std::size_t kThreadStackBytes = std::size_t{1} << 20U;
// Limit of CPU time. A whole download takes 0.05 s, or 1 s on a slow device.
constexpr rlim_t kCpuSeconds = 10;
constexpr rlim_t kDescriptors = 64;
// The process ends after this time, even if the daemon has no right to kill it (if the daemon runs
// as root without CAP_KILL). The time is longer than the longest transfer and the daemon's own
// limit for a transfer.
constexpr time_t kOwnEndSeconds = 31;

// The files that a network client reads: certificates, the configuration of name lookups, shared
// libraries.
constexpr const char* kReadable[] = {
    "/etc/ssl",
    "/etc/pki",
    "/etc/ca-certificates",
    "/usr/lib/ssl",
    "/usr/share/ca-certificates",
    "/usr/local/share/ca-certificates",
    "/etc/resolv.conf",
    "/etc/nsswitch.conf",
    "/etc/hosts",
    "/etc/host.conf",
    "/etc/hostname",
    "/etc/gai.conf",
    "/etc/services",
    "/etc/protocols",
    "/etc/mdns.allow",
    "/etc/ld.so.cache",
    "/lib",
    "/lib64",
    "/usr/lib",
    "/usr/lib64",
    "/usr/local/lib",
};

#if PROXYMANAGER_SECCOMP

using sandbox::Arguments;
using sandbox::equals;
using sandbox::kInt;
using sandbox::masked;
using sandbox::SystemCalls;

constexpr std::uint64_t kSocketType = kInt & ~std::uint64_t{SOCK_CLOEXEC | SOCK_NONBLOCK};

/// The condition: argument number `argument`, an int, is `value`.
scmp_arg_cmp isInt(unsigned argument, int value) {
  return masked(argument, kInt, static_cast<std::uint32_t>(value));
}

void allowMemory(SystemCalls& list) {
  // A shared library of the name service is mapped as executable from a file, and never as
  // writable.
  constexpr std::uint64_t kWriteAndRun = PROT_WRITE | PROT_EXEC;
  for (const int call : {SCMP_SYS(mmap), SCMP_SYS(mmap2)}) {
    list.allow(call, {masked(2, PROT_EXEC, 0)})
        .allow(call, {masked(2, kWriteAndRun, PROT_EXEC), masked(3, MAP_ANONYMOUS, 0)});
  }
  list.allow(SCMP_SYS(brk))
      .allow(SCMP_SYS(mprotect), {masked(2, PROT_EXEC, 0)})
      .allow(SCMP_SYS(mremap))
      .allow(SCMP_SYS(munmap))
      .allow(SCMP_SYS(madvise));
}

void allowThreads(SystemCalls& list) {
  // libcurl looks up names on a thread. Only the exact flags of pthread_create are allowed, so no
  // process and no namespace can be made. The filter cannot see the arguments of clone3. So clone3
  // returns an error, and the C library then calls clone.
  constexpr std::uint64_t kThread = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SYSVSEM |
                                    CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS |
                                    CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;
  list.allow(SCMP_SYS(clone), {masked(0, kInt, kThread)}).refuse(SCMP_SYS(clone3), ENOSYS);
  for (const int call :
       {SCMP_SYS(futex), SCMP_SYS(futex_time64), SCMP_SYS(set_robust_list), SCMP_SYS(rseq),
        SCMP_SYS(gettid), SCMP_SYS(getpid), SCMP_SYS(exit), SCMP_SYS(exit_group),
        SCMP_SYS(restart_syscall), SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask),
        SCMP_SYS(rt_sigreturn), SCMP_SYS(sigreturn), SCMP_SYS(sched_yield)}) {
    list.allow(call);
  }
  // The allocator counts the processors of this process. An argument other than 0 is the id of
  // another process.
  list.allow(SCMP_SYS(sched_getaffinity), {isInt(0, 0)});
}

/// Allows sockets for TCP and UDP, and for no other internet protocol. A kernel has many other
/// protocols, which programs rarely use.
void allowInternetSockets(SystemCalls& list) {
  for (const int family : {AF_INET, AF_INET6}) {
    for (const auto& [type, protocol] :
         {std::pair{SOCK_STREAM, IPPROTO_TCP}, std::pair{SOCK_DGRAM, IPPROTO_UDP}}) {
      // Protocol 0 means the usual protocol of the socket type.
      for (const int number : {0, static_cast<int>(protocol)}) {
        list.allow(SCMP_SYS(socket),
                   {isInt(0, family), masked(1, kSocketType, type), isInt(2, number)});
      }
    }
  }
}

void allowSockets(SystemCalls& list) {
  allowInternetSockets(list);
  // The C library asks for this machine's addresses to sort the addresses of a name.
  list.allow(SCMP_SYS(socket), {masked(0, kInt, AF_NETLINK), masked(2, kInt, NETLINK_ROUTE)});
  // The rights of a connection to the message bus depend on its user, and this process may have the
  // daemon's user. So local sockets are refused. If a module of the name service connects to a
  // local service, the module fails, and the next module is asked.
  list.refuse(SCMP_SYS(socket), EAFNOSUPPORT, {masked(0, kInt, AF_UNIX)});
  // libcurl wakes itself through a socket pair. A pair of stream sockets can never be connected to
  // anything else.
  list.allow(SCMP_SYS(socketpair), {isInt(0, AF_UNIX), masked(1, kSocketType, SOCK_STREAM)});
  for (const std::uint64_t level :
       {std::uint64_t{SOL_SOCKET}, std::uint64_t{IPPROTO_TCP}, std::uint64_t{IPPROTO_IP},
        std::uint64_t{IPPROTO_IPV6}, std::uint64_t{SOL_NETLINK}}) {
    list.allow(SCMP_SYS(setsockopt), {masked(1, kInt, level)});
  }
  for (const int call : {SCMP_SYS(connect),     SCMP_SYS(bind),
                         SCMP_SYS(getsockname), SCMP_SYS(getpeername),
                         SCMP_SYS(getsockopt),  SCMP_SYS(shutdown),
                         SCMP_SYS(send),        SCMP_SYS(sendto),
                         SCMP_SYS(sendmsg),     SCMP_SYS(sendmmsg),
                         SCMP_SYS(recv),        SCMP_SYS(recvfrom),
                         SCMP_SYS(recvmsg),     SCMP_SYS(poll),
                         SCMP_SYS(ppoll),       SCMP_SYS(ppoll_time64),
                         SCMP_SYS(select),      SCMP_SYS(_newselect),
                         SCMP_SYS(pselect6),    SCMP_SYS(pselect6_time64),
                         SCMP_SYS(eventfd2),    SCMP_SYS(pipe2)}) {
    list.allow(call);
  }
  list.allow(SCMP_SYS(ioctl), {masked(1, kInt, FIONBIO)})
      .allow(SCMP_SYS(ioctl), {masked(1, kInt, FIONREAD)});
  // A link-local address (in a URL or of a name server) contains the name of its interface, which
  // is converted to a number.
  list.allow(SCMP_SYS(ioctl), {masked(1, kInt, SIOCGIFINDEX)});
}

void allowFiles(SystemCalls& list) {
  // Files may be opened only for reading, because the file for the body is already open.
  constexpr std::uint64_t kWrites = O_ACCMODE | O_CREAT | O_TRUNC;
  list.allow(SCMP_SYS(openat), {masked(2, kWrites, O_RDONLY)})
      .allow(SCMP_SYS(open), {masked(1, kWrites, O_RDONLY)});
  for (const int call :
       {SCMP_SYS(read),     SCMP_SYS(readv),      SCMP_SYS(pread64),    SCMP_SYS(write),
        SCMP_SYS(writev),   SCMP_SYS(close),      SCMP_SYS(lseek),      SCMP_SYS(_llseek),
        SCMP_SYS(fstat),    SCMP_SYS(fstat64),    SCMP_SYS(stat),       SCMP_SYS(stat64),
        SCMP_SYS(lstat),    SCMP_SYS(lstat64),    SCMP_SYS(newfstatat), SCMP_SYS(fstatat64),
        SCMP_SYS(statx),    SCMP_SYS(access),     SCMP_SYS(faccessat),  SCMP_SYS(faccessat2),
        SCMP_SYS(readlink), SCMP_SYS(readlinkat), SCMP_SYS(getdents64)}) {
    list.allow(call);
  }
  for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_SETFL}) {
    const Arguments thisOne{masked(1, kInt, static_cast<std::uint64_t>(command))};
    list.allow(SCMP_SYS(fcntl), thisOne).allow(SCMP_SYS(fcntl64), thisOne);
  }
}

void allowTheRest(SystemCalls& list) {
  // A negative clock number means the CPU clock of any process.
  constexpr std::uint64_t kSign = std::uint64_t{1} << 31U;
  for (const int call : {SCMP_SYS(clock_gettime), SCMP_SYS(clock_gettime64), SCMP_SYS(clock_getres),
                         SCMP_SYS(clock_nanosleep), SCMP_SYS(clock_nanosleep_time64)}) {
    list.allow(call, {masked(0, kSign, 0)});
  }
  for (const int call : {SCMP_SYS(nanosleep), SCMP_SYS(gettimeofday), SCMP_SYS(time),
                         SCMP_SYS(getrandom), SCMP_SYS(uname), SCMP_SYS(sysinfo), SCMP_SYS(getuid),
                         SCMP_SYS(geteuid), SCMP_SYS(getgid), SCMP_SYS(getegid), SCMP_SYS(getuid32),
                         SCMP_SYS(geteuid32), SCMP_SYS(getgid32), SCMP_SYS(getegid32)}) {
    list.allow(call);
  }
}

Failure allowOnlyWhatADownloadNeeds() {
  SystemCalls list;
  allowMemory(list);
  allowThreads(list);
  allowSockets(list);
  allowFiles(list);
  allowTheRest(list);
  return list.load();
}

#else

Failure allowOnlyWhatADownloadNeeds() {
  return {};
}

#endif

Failure limitThreadStacks() {
  if constexpr (PROXYMANAGER_SANITIZED) return {};  // the threads of a sanitizer need more
  pthread_attr_t attributes;
  errno = pthread_attr_init(&attributes);
  if (errno == 0) errno = pthread_attr_setstacksize(&attributes, kThreadStackBytes);
  if (errno == 0) errno = pthread_setattr_default_np(&attributes);
  if (errno != 0) return sandbox::failed("stack of threads");
  pthread_attr_destroy(&attributes);
  return {};
}

/// Sets a timer that kills the process after kOwnEndSeconds. The kernel sends the signal of the
/// timer, so no permission is needed. SIGKILL cannot be ignored or blocked. No system call on the
/// list can change a timer. The daemon itself enforces the time limit of a transfer, so a kernel
/// without timers is not a failure.
void limitLife() {
  sigevent end{};
  end.sigev_notify = SIGEV_SIGNAL;
  end.sigev_signo = SIGKILL;
  timer_t timer{};
  if (timer_create(CLOCK_MONOTONIC, &end, &timer) != 0) return;
  const itimerspec once{{}, {kOwnEndSeconds, 0}};
  timer_settime(timer, 0, &once, nullptr);
}

}  // namespace

Failure raiseWalls(rlim_t fileBytes, std::span<const char* const> certificates, bool& limitsFiles) {
  const sandbox::Limit limits[] = {
    {RLIMIT_CORE, 0, "RLIMIT_CORE"},
    {RLIMIT_FSIZE, fileBytes, "RLIMIT_FSIZE"},
    {RLIMIT_CPU, kCpuSeconds, "RLIMIT_CPU"},
    {RLIMIT_MEMLOCK, 0, "RLIMIT_MEMLOCK"},
#if !PROXYMANAGER_SANITIZED  // sanitizers map far more memory, and open pipes
    {RLIMIT_AS, kAddressSpaceBytes, "RLIMIT_AS"},
    {RLIMIT_NOFILE, kDescriptors, "RLIMIT_NOFILE"},
#endif
  };
  sandbox::volunteerForOutOfMemory();
  if (auto failure = limitThreadStacks()) return failure;
  limitLife();
  if (auto failure = sandbox::giveUpPrivileges(sandbox::Network::keep)) return failure;
  // A transfer does not read its socket, so it does not notice that the daemon has ended. This
  // signal ends the process when the daemon's thread that started it has ended. The setting is made
  // after the change of user, because that change cancels it.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) return sandbox::failed("death signal");
  if (auto failure = sandbox::limitResources(limits)) return failure;
  std::vector<const char*> readable(std::begin(kReadable), std::end(kReadable));
  readable.insert(readable.end(), certificates.begin(), certificates.end());
  if (auto failure = sandbox::readOnly(readable, limitsFiles)) return failure;
  return allowOnlyWhatADownloadNeeds();
}

}  // namespace fetch_child
