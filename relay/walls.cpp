#include "relay/walls.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <termios.h>

#include <cerrno>
#include <cstdint>

#include "sandbox/file_access.h"

#if PROXYMANAGER_SECCOMP
#include "sandbox/system_calls.h"
#endif

namespace relay {

namespace {

using sandbox::Failure;

// The files that a network client reads: certificates, shared libraries, and the configuration of
// name lookups, users and Kerberos.
constexpr const char* kReadable[] = {
    "/etc/ssl",
    "/etc/pki",
    "/etc/ca-certificates",
    "/usr/lib/ssl",
    "/usr/local/share/ca-certificates",
    "/usr/share/ca-certificates",
    "/etc/resolv.conf",
    "/etc/nsswitch.conf",
    "/etc/hosts",
    "/etc/host.conf",
    "/etc/hostname",
    "/etc/gai.conf",
    "/etc/services",
    "/etc/protocols",
    "/etc/mdns.allow",
    "/etc/passwd",
    "/etc/group",
    "/var/lib/sss/mc",
    "/etc/krb5.conf",
    "/etc/krb5.conf.d",
    "/etc/gss",
    "/etc/machine-id",
    "/etc/localtime",
    "/usr/share/zoneinfo",
    "/etc/ld.so.cache",
    "/lib",
    "/lib64",
    "/usr/lib",
    "/usr/lib64",
    "/usr/local/lib",
    "/run/systemd/resolve",
    "/run/resolvconf",
    "/proc/sys",
    "/sys/devices/system/cpu",
    "/dev/urandom",
    "/dev/null",
};

#if PROXYMANAGER_SECCOMP

using sandbox::Arguments;
using sandbox::kInt;
using sandbox::masked;
using sandbox::SystemCalls;

void allowMemory(SystemCalls& list) {
  // Modules of the name service and of Kerberos are mapped as code from files. Such a mapping is
  // never writable.
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
  // Only the exact flags of pthread_create are allowed, so no process and no namespace can be made.
  // The filter cannot see the flags of clone3, so clone3 is refused, and the C library then uses
  // clone.
  constexpr std::uint64_t kThread = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SYSVSEM |
                                    CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS |
                                    CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;
  list.allow(SCMP_SYS(clone), {masked(0, kInt, kThread)}).refuse(SCMP_SYS(clone3), ENOSYS);
  for (const std::uint64_t what : {std::uint64_t{PR_SET_NAME}, std::uint64_t{PR_GET_NAME}}) {
    list.allow(SCMP_SYS(prctl), {masked(0, kInt, what)});
  }
  for (const int call :
       {SCMP_SYS(futex), SCMP_SYS(futex_time64), SCMP_SYS(set_robust_list), SCMP_SYS(rseq),
        SCMP_SYS(gettid), SCMP_SYS(getpid), SCMP_SYS(getppid), SCMP_SYS(exit), SCMP_SYS(exit_group),
        SCMP_SYS(restart_syscall), SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask),
        SCMP_SYS(rt_sigreturn), SCMP_SYS(sigreturn), SCMP_SYS(sigaltstack), SCMP_SYS(sched_yield),
        SCMP_SYS(sched_getaffinity), SCMP_SYS(tgkill), SCMP_SYS(membarrier)}) {
    list.allow(call);
  }
}

void allowSockets(SystemCalls& list) {
  // AF_UNIX is needed for the message bus, the log and the name service.
  for (const int family : {AF_INET, AF_INET6, AF_UNIX}) {
    list.allow(SCMP_SYS(socket), {masked(0, kInt, static_cast<std::uint64_t>(family))});
  }
  for (const std::uint64_t protocol :
       {std::uint64_t{NETLINK_ROUTE}, std::uint64_t{NETLINK_SOCK_DIAG}}) {
    list.allow(SCMP_SYS(socket), {masked(0, kInt, AF_NETLINK), masked(2, kInt, protocol)});
  }
  for (const int call : {SCMP_SYS(socketpair),
                         SCMP_SYS(connect),
                         SCMP_SYS(bind),
                         SCMP_SYS(accept),
                         SCMP_SYS(accept4),
                         SCMP_SYS(getsockname),
                         SCMP_SYS(getpeername),
                         SCMP_SYS(getsockopt),
                         SCMP_SYS(setsockopt),
                         SCMP_SYS(shutdown),
                         SCMP_SYS(send),
                         SCMP_SYS(sendto),
                         SCMP_SYS(sendmsg),
                         SCMP_SYS(sendmmsg),
                         SCMP_SYS(recv),
                         SCMP_SYS(recvfrom),
                         SCMP_SYS(recvmsg),
                         SCMP_SYS(recvmmsg),
                         SCMP_SYS(poll),
                         SCMP_SYS(ppoll),
                         SCMP_SYS(ppoll_time64),
                         SCMP_SYS(select),
                         SCMP_SYS(_newselect),
                         SCMP_SYS(pselect6),
                         SCMP_SYS(pselect6_time64),
                         SCMP_SYS(epoll_create1),
                         SCMP_SYS(epoll_ctl),
                         SCMP_SYS(epoll_wait),
                         SCMP_SYS(epoll_pwait),
                         SCMP_SYS(epoll_pwait2),
                         SCMP_SYS(eventfd2),
                         SCMP_SYS(pipe2),
                         SCMP_SYS(timerfd_create),
                         SCMP_SYS(timerfd_settime),
                         SCMP_SYS(timerfd_settime64)}) {
    list.allow(call);
  }
  list.allow(SCMP_SYS(ioctl), {masked(1, kInt, FIONBIO)})
      .allow(SCMP_SYS(ioctl), {masked(1, kInt, FIONREAD)})
      .refuse(SCMP_SYS(ioctl), ENOTTY, {masked(1, kInt, TCGETS)});
}

void allowFiles(SystemCalls& list) {
  constexpr std::uint64_t kWrites = O_ACCMODE | O_CREAT | O_TRUNC;
  list.allow(SCMP_SYS(openat), {masked(2, kWrites, O_RDONLY)})
      .allow(SCMP_SYS(open), {masked(1, kWrites, O_RDONLY)});
  // Some modules of the name service try to open a file for writing. These modules also work if the
  // opening fails with EACCES.
  for (const std::uint64_t mode : {std::uint64_t{O_WRONLY}, std::uint64_t{O_RDWR}}) {
    list.refuse(SCMP_SYS(openat), EACCES, {masked(2, O_ACCMODE, mode)});
  }
  for (const int call :
       {SCMP_SYS(read),     SCMP_SYS(readv),      SCMP_SYS(pread64),    SCMP_SYS(write),
        SCMP_SYS(writev),   SCMP_SYS(close),      SCMP_SYS(lseek),      SCMP_SYS(_llseek),
        SCMP_SYS(fstat),    SCMP_SYS(fstat64),    SCMP_SYS(stat),       SCMP_SYS(stat64),
        SCMP_SYS(lstat),    SCMP_SYS(lstat64),    SCMP_SYS(newfstatat), SCMP_SYS(fstatat64),
        SCMP_SYS(statx),    SCMP_SYS(access),     SCMP_SYS(faccessat),  SCMP_SYS(faccessat2),
        SCMP_SYS(readlink), SCMP_SYS(readlinkat), SCMP_SYS(getdents64), SCMP_SYS(getcwd),
        SCMP_SYS(dup),      SCMP_SYS(dup2),       SCMP_SYS(dup3),       SCMP_SYS(fstatfs),
        SCMP_SYS(statfs)}) {
    list.allow(call);
  }
  for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_SETFL, F_DUPFD_CLOEXEC}) {
    const Arguments thisOne{masked(1, kInt, static_cast<std::uint64_t>(command))};
    list.allow(SCMP_SYS(fcntl), thisOne).allow(SCMP_SYS(fcntl64), thisOne);
  }
}

void allowTheRest(SystemCalls& list) {
  for (const int call : {SCMP_SYS(clock_gettime),
                         SCMP_SYS(clock_gettime64),
                         SCMP_SYS(clock_getres),
                         SCMP_SYS(clock_nanosleep),
                         SCMP_SYS(clock_nanosleep_time64),
                         SCMP_SYS(nanosleep),
                         SCMP_SYS(gettimeofday),
                         SCMP_SYS(time),
                         SCMP_SYS(getrandom),
                         SCMP_SYS(uname),
                         SCMP_SYS(sysinfo),
                         SCMP_SYS(getuid),
                         SCMP_SYS(geteuid),
                         SCMP_SYS(getgid),
                         SCMP_SYS(getegid),
                         SCMP_SYS(getuid32),
                         SCMP_SYS(geteuid32),
                         SCMP_SYS(getgid32),
                         SCMP_SYS(getegid32),
                         SCMP_SYS(getresuid),
                         SCMP_SYS(getresgid),
                         SCMP_SYS(getgroups),
                         SCMP_SYS(prlimit64),
                         SCMP_SYS(getrusage)}) {
    list.allow(call);
  }
}

Failure allowOnlyWhatARelayNeeds() {
  SystemCalls list;
  allowMemory(list);
  allowThreads(list);
  allowSockets(list);
  allowFiles(list);
  allowTheRest(list);
  return list.load();
}

#else

Failure allowOnlyWhatARelayNeeds() {
  return {};
}

#endif

}  // namespace

Failure raiseWalls() {
  if (auto failure = sandbox::giveUpPrivileges(sandbox::Network::keep)) return failure;
#if !PROXYMANAGER_SANITIZED  // a sanitizer needs files when the process ends
  constexpr sandbox::Limit kLimits[] = {{RLIMIT_CORE, 0, "RLIMIT_CORE"},
                                        {RLIMIT_FSIZE, 0, "RLIMIT_FSIZE"}};
  if (auto failure = sandbox::limitResources(kLimits)) return failure;
  bool isInForce = false;
  if (auto failure = sandbox::readOnly(kReadable, isInForce)) return failure;
#endif
  return allowOnlyWhatARelayNeeds();
}

}  // namespace relay
