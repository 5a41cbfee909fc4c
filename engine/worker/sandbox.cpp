#include "engine/worker/sandbox.h"

#include <grp.h>
#include <linux/capability.h>
#include <linux/futex.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#if PROXYMANAGER_SECCOMP
#include <seccomp.h>
#endif

namespace pac_worker {

namespace {

using Failure = std::optional<std::string>;

// Where the user of its own does not exist; both numbers are nobody's on every distribution.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

Failure failed(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

struct Account {
  uid_t user = kNobody;
  gid_t group = kNogroup;
};

/// The account `proxymanager` of /etc/passwd, else nobody's. Read without the name service switch:
/// its modules would be loaded into the worker and may wait for a network.
Account account() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/etc/passwd", "re"), &std::fclose);
  if (!file) return {};
  while (const passwd* entry = fgetpwent(file.get())) {
    if (std::strcmp(entry->pw_name, "proxymanager") == 0 && entry->pw_uid != 0) {
      return {entry->pw_uid, entry->pw_gid};
    }
  }
  return {};
}

/// Leaves the network, with a privilege that is about to go. @return whether that was to be had
bool leaveNetwork() {
  return unshare(CLONE_NEWNET) == 0;
}

void dropBoundingSet();

/// Leaves the network by a user namespace, which needs no privilege. Only once the process is
/// nobody outside of it: inside, without a map, even root looks like nobody. A kernel or a
/// container that gives no namespace is no failure: the system calls of sockets are not on the list
/// either.
void leaveNetworkUnprivileged() {
  // A new user namespace comes with a full bounding set of its own.
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) dropBoundingSet();
}

Failure becomeUnprivileged() {
  if (geteuid() != 0 && getuid() != 0) return {};
  const Account target = account();
  if (setgroups(0, nullptr) != 0) return failed("setgroups");
  if (setresgid(target.group, target.group, target.group) != 0) return failed("setresgid");
  if (setresuid(target.user, target.user, target.user) != 0) return failed("setresuid");
  return {};
}

/// The bounding set goes while there still is the capability that it takes; who has not got that
/// one gains nothing from the set either, since no program that is started gets new privileges.
void dropBoundingSet() {
  for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0;
       ++capability) {
    prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  }
}

Failure dropCapabilities() {
  // Fails only where the kernel has no ambient set.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capset, &header, none) != 0) return failed("capset");
  return {};
}

struct Limit {
  decltype(RLIMIT_AS) resource;
  rlim_t value;
  const char* name;
};

constexpr Limit kLimits[] = {
    {RLIMIT_CORE, 0, "RLIMIT_CORE"},
    {RLIMIT_FSIZE, 0, "RLIMIT_FSIZE"},
    {RLIMIT_NPROC, 0, "RLIMIT_NPROC"},
    {RLIMIT_MEMLOCK, 0, "RLIMIT_MEMLOCK"},
#if !PROXYMANAGER_SANITIZED  // which map far more, and look at memory through pipes
    {RLIMIT_AS, kAddressSpaceBytes, "RLIMIT_AS"},
    {RLIMIT_NOFILE, 0, "RLIMIT_NOFILE"},
#endif
};

/// A tighter limit that is there already stays: only a privilege could raise it.
Failure limitResource(const Limit& limit) {
  rlimit present{};
  if (getrlimit(limit.resource, &present) != 0) return failed(limit.name);
  const rlim_t value = std::min(limit.value, present.rlim_max);
  const rlimit both{value, value};
  if (setrlimit(limit.resource, &both) != 0) return failed(limit.name);
  return {};
}

Failure limitResources() {
  for (const auto& limit : kLimits) {
    if (auto failure = limitResource(limit)) return failure;
  }
  return {};
}

/// A program may have been started with a smaller stack than the engine counts on.
Failure raiseStack() {
  rlimit stack{};
  if (getrlimit(RLIMIT_STACK, &stack) != 0) return failed("RLIMIT_STACK");
  if (stack.rlim_max < kStackBytes) return {};
  return limitResource({RLIMIT_STACK, kStackBytes, "RLIMIT_STACK"});
}

#if PROXYMANAGER_SECCOMP

using Filter = std::unique_ptr<void, decltype(&seccomp_release)>;
using Arguments = std::vector<scmp_arg_cmp>;

class AllowList {
 public:
  AllowList() : mFilter(seccomp_init(SCMP_ACT_KILL_PROCESS), &seccomp_release) {}

  AllowList& allow(int call, const Arguments& arguments = {}) {
    note(mFilter ? seccomp_rule_add_array(mFilter.get(), SCMP_ACT_ALLOW, call,
                                          static_cast<unsigned>(arguments.size()), arguments.data())
                 : -ENOMEM);
    return *this;
  }

  /// Asks for `call` before others.
  AllowList& first(int call) {
    if (mFilter) note(seccomp_syscall_priority(mFilter.get(), call, UINT8_MAX));
    return *this;
  }

  Failure load() {
    if (mError == 0) {
      // Calls of another architecture's kind are as forbidden as any.
      note(seccomp_attr_set(mFilter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS));
    }
    if (mError == 0) note(seccomp_load(mFilter.get()));
    if (mError == 0) return {};
    errno = -mError;
    return failed("seccomp");
  }

 private:
  void note(int result) {
    if (mError == 0 && result < 0) mError = result;
  }

  Filter mFilter;
  int mError = 0;
};

scmp_arg_cmp equals(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}

scmp_arg_cmp masked(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

Failure allowOnlyWhatAnEngineNeeds(int socket) {
  const auto theSocket = equals(0, static_cast<std::uint64_t>(socket));
  const auto noAddress = equals(4, 0);
  constexpr std::uint64_t kInt = 0xFFFFFFFF;  // upper halves of int arguments mean nothing
  constexpr std::uint64_t kFutexCommand = kInt & ~std::uint64_t{FUTEX_PRIVATE_FLAG};
  AllowList list;
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
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failed("no_new_privs");
  if (auto failure = raiseStack()) return failure;
  const bool left = leaveNetwork();
  dropBoundingSet();
  if (auto failure = becomeUnprivileged()) return failure;
  if (!left) leaveNetworkUnprivileged();
  if (auto failure = dropCapabilities()) return failure;
  if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) return failed("dumpable");
  if (auto failure = limitResources()) return failure;
  return allowOnlyWhatAnEngineNeeds(socket);
}

}  // namespace pac_worker
