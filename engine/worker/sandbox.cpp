#include "engine/worker/sandbox.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "sandbox/walls.h"

#if PROXYMANAGER_SECCOMP
#include "sandbox/system_calls.h"
#endif

namespace pac_worker {

namespace {

using sandbox::Failure;

constexpr sandbox::Limit kLimits[] = {
    {RLIMIT_CORE, 0, "RLIMIT_CORE"},
    {RLIMIT_FSIZE, 0, "RLIMIT_FSIZE"},
    {RLIMIT_NPROC, 0, "RLIMIT_NPROC"},
    {RLIMIT_MEMLOCK, 0, "RLIMIT_MEMLOCK"},
#if !PROXYMANAGER_SANITIZED  // which map far more, and look at memory through pipes
    {RLIMIT_AS, kAddressSpaceBytes, "RLIMIT_AS"},
    {RLIMIT_NOFILE, 0, "RLIMIT_NOFILE"},
#endif
};

#if PROXYMANAGER_SECCOMP

using sandbox::Arguments;
using sandbox::equals;
using sandbox::kInt;
using sandbox::masked;

Failure allowOnlyWhatAnEngineNeeds(int socket) {
  const auto theSocket = equals(0, static_cast<std::uint64_t>(socket));
  const auto noAddress = equals(4, 0);
  constexpr std::uint64_t kFutexCommand = kInt & ~std::uint64_t{FUTEX_PRIVATE_FLAG};
  sandbox::SystemCalls list;
  // recv and send, mmap2 and the 64-bit clock are what 32-bit machines have instead.
  list.allow(SCMP_SYS(recvfrom), {theSocket, noAddress})
      .allow(SCMP_SYS(sendto), {theSocket, noAddress})
      .allow(SCMP_SYS(recv), {theSocket})
      .allow(SCMP_SYS(send), {theSocket})
      .first(SCMP_SYS(recvfrom))
      .first(SCMP_SYS(sendto));
  // Memory: never of a file, never to be run.
  const Arguments plainMemory{masked(2, PROT_EXEC, 0), masked(3, MAP_ANONYMOUS, MAP_ANONYMOUS)};
  list.allow(SCMP_SYS(brk))
      .allow(SCMP_SYS(mmap), plainMemory)
      .allow(SCMP_SYS(mmap2), plainMemory)
      .allow(SCMP_SYS(mprotect), {masked(2, PROT_EXEC, 0)})
      .allow(SCMP_SYS(mremap))
      .allow(SCMP_SYS(munmap))
      .allow(SCMP_SYS(madvise));
  // The clock, where the kernel gives no page to read it from.
  list.allow(SCMP_SYS(clock_gettime))
      .allow(SCMP_SYS(clock_gettime64))
      .allow(SCMP_SYS(gettimeofday))
      .allow(SCMP_SYS(time));
  // The alarm that ends a script which nothing else can, should the library be gone.
  list.allow(SCMP_SYS(setitimer), {masked(0, kInt, ITIMER_REAL)});
  // What the C++ runtime does around a thrown exception: pthread_once wakes who may wait for it.
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
  // Named by its file, the zone is not looked for again at each conversion; stat is forbidden then.
  setenv("TZ", ":/etc/localtime", 0);
  tzset();
}

Failure enterSandbox(int socket) {
  sandbox::volunteerForOutOfMemory();
  if (auto failure = sandbox::setStackLimit(kStackBytes)) return failure;
  if (auto failure = sandbox::giveUpPrivileges(sandbox::Network::leave)) return failure;
  if (auto failure = sandbox::limitResources(kLimits)) return failure;
  return allowOnlyWhatAnEngineNeeds(socket);
}

}  // namespace pac_worker
