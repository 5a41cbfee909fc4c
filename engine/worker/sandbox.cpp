#include "engine/worker/sandbox.h"

#include <linux/futex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "engine/wire/descriptors.h"
#include "sandbox/walls.h"

#if PROXYMANAGER_SECCOMP
#include "sandbox/system_calls.h"
#endif

namespace pac_worker {

namespace {

using sandbox::Failure;

/// Sets all resource limits except the limit of the stack.
Failure limitResources([[maybe_unused]] const MemoryWalls& memory) {
  const sandbox::Limit limits[] = {
    {RLIMIT_CORE, 0, "RLIMIT_CORE"},
    {RLIMIT_FSIZE, 0, "RLIMIT_FSIZE"},
    {RLIMIT_NPROC, 0, "RLIMIT_NPROC"},
    {RLIMIT_MEMLOCK, 0, "RLIMIT_MEMLOCK"},
#if !PROXYMANAGER_SANITIZED  // sanitizers need more address space, and pipes to check addresses
    {RLIMIT_AS, memory.addressSpaceBytes, "RLIMIT_AS"},
    {RLIMIT_NOFILE, 0, "RLIMIT_NOFILE"},
#endif
  };
  return sandbox::limitResources(limits);
}

#if PROXYMANAGER_SECCOMP

using sandbox::Arguments;
using sandbox::equals;
using sandbox::kInt;
using sandbox::masked;

/// The condition that argument number `argument`, an int, is `value`.
scmp_arg_cmp isInt(unsigned argument, int value) {
  return masked(argument, kInt, static_cast<std::uint32_t>(value));
}

/// Allows whole messages over `socket`, with the flags that Channel uses and without an address.
void allowMessages(sandbox::SystemCalls& list, int socket) {
  const auto theSocket = isInt(0, socket);
  const auto noAddress = equals(4, 0);
  const auto noFlags = isInt(3, 0);
  const auto noSignal = isInt(3, MSG_NOSIGNAL);
  // On 32-bit machines, the C library uses the system calls recv and send instead.
  list.allow(SCMP_SYS(recvfrom), {theSocket, noFlags, noAddress})
      .allow(SCMP_SYS(sendto), {theSocket, noSignal, noAddress})
      .allow(SCMP_SYS(recv), {theSocket, noFlags})
      .allow(SCMP_SYS(send), {theSocket, noSignal})
      .first(SCMP_SYS(recvfrom))
      .first(SCMP_SYS(sendto));
}

/// Allows private memory without a file, never executable memory. The C library's allocator needs
/// it. If the allocator had several arenas, it would need more system calls. It has several arenas
/// only in programs with threads.
void allowMemory(sandbox::SystemCalls& list) {
  constexpr int kReadWrite = PROT_READ | PROT_WRITE;
  const Arguments plainMemory{isInt(2, kReadWrite), isInt(3, MAP_PRIVATE | MAP_ANONYMOUS),
                              isInt(4, -1)};
  list.allow(SCMP_SYS(brk))
      .allow(SCMP_SYS(mmap), plainMemory)
      .allow(SCMP_SYS(mmap2), plainMemory)
      .allow(SCMP_SYS(mremap), {isInt(3, MREMAP_MAYMOVE)})
      .allow(SCMP_SYS(munmap))
      .allow(SCMP_SYS(madvise), {isInt(2, MADV_DONTNEED)})
      .allow(SCMP_SYS(madvise), {isInt(2, MADV_FREE)});
}

/// The C library reads a clock without a system call if the kernel provides a page for this (vDSO).
/// These system calls are for kernels without that page. Other clock numbers are not allowed: they
/// can mean the CPU clock of any process.
void allowClocks(sandbox::SystemCalls& list) {
  for (const int clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
    list.allow(SCMP_SYS(clock_gettime), {isInt(0, clock)})
        .allow(SCMP_SYS(clock_gettime64), {isInt(0, clock)});
  }
  list.allow(SCMP_SYS(gettimeofday), {equals(1, 0)}).allow(SCMP_SYS(time));
}

Failure allowOnlyWhatAnEngineNeeds(int socket) {
  constexpr std::uint64_t kFutexCommand = kInt & ~std::uint64_t{FUTEX_PRIVATE_FLAG};
  sandbox::SystemCalls list;
  allowMessages(list, socket);
  allowMemory(list);
  allowClocks(list);
  // The alarm that ends a script if nothing else can end it (evaluation_alarm.h).
  list.allow(SCMP_SYS(setitimer), {isInt(0, ITIMER_REAL), equals(2, 0)});
  // For an exception, the C++ runtime calls pthread_once, which wakes threads that may wait.
  list.allow(SCMP_SYS(futex), {masked(1, kFutexCommand, FUTEX_WAKE)});
  list.allow(SCMP_SYS(restart_syscall)).allow(SCMP_SYS(exit_group));
  return list.load();
}

#else

Failure allowOnlyWhatAnEngineNeeds(int) {
  return {};
}

#endif

}  // namespace

void loadZone() {
  // If TZ has the form ":FILE", the C library does not check the zone's file again at each
  // conversion. This check would need the system call stat, which the sandbox forbids.
  setenv("TZ", ":/etc/localtime", 0);
  tzset();
}

Failure enterSandbox(int socket, const MemoryWalls& memory) {
  sandbox::volunteerForOutOfMemory();
  if (auto failure = sandbox::setStackLimit(memory.stackBytes)) return failure;
  if (auto failure = sandbox::giveUpPrivileges(sandbox::Network::leave)) return failure;
  // This setting comes after the change of the user, which would clear it.
  if (std::getenv(pac_engine::kEndVariable) != nullptr) prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  if (auto failure = limitResources(memory)) return failure;
  return allowOnlyWhatAnEngineNeeds(socket);
}

}  // namespace pac_worker
