#include "sandbox/walls.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/unique_fd.h"

namespace sandbox {

namespace {

// On every distribution, these are the ids of the user nobody and of its group. The child processes
// need no user account of their own: they own no files, and processes of the same user cannot trace
// them (giveUpPrivileges).
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

/// Empties the bounding set of capabilities. This needs the capability CAP_SETPCAP. A process
/// without that capability keeps its bounding set, which is harmless: no program that it starts
/// gets new privileges.
void dropBoundingSet() {
  for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0;
       ++capability) {
    prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  }
}

/// Leaves the network through a new user namespace, which needs no privilege. Call it only after
/// the process has become nobody: in a user namespace without a map of users, even root looks like
/// nobody.
void leaveNetworkUnprivileged() {
  // A new user namespace comes with a full bounding set of its own.
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) dropBoundingSet();
}

Failure becomeNobody() {
  if (geteuid() != 0 && getuid() != 0) return {};
  if (setgroups(0, nullptr) != 0) return failed("setgroups");
  if (setresgid(kNogroup, kNogroup, kNogroup) != 0) return failed("setresgid");
  if (setresuid(kNobody, kNobody, kNobody) != 0) return failed("setresuid");
  return {};
}

Failure dropCapabilities() {
  // This call fails only if the kernel has no ambient set.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capset, &header, none) == 0) return {};
  const Failure refused = failed("capset");
  // A supervisor may forbid the call capset. This is no failure if the process has no effective and
  // no permitted capability. Inheritable capabilities may remain, but they matter only for programs
  // with file capabilities, which no_new_privs disables.
  __user_cap_data_struct present[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capget, &header, present) != 0) return refused;
  const bool hasSome = std::any_of(present, std::end(present), [](const auto& set) {
    return (set.effective | set.permitted) != 0;
  });
  if (hasSome) return refused;
  return {};
}

Failure setLimit(const Limit& limit) {
  rlimit present{};
  if (getrlimit(limit.resource, &present) != 0) return failed(limit.name);
  const rlim_t value = std::min(limit.value, present.rlim_max);
  const rlimit both{value, value};
  if (setrlimit(limit.resource, &both) != 0) return failed(limit.name);
  return {};
}

}  // namespace

Failure failed(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

Failure giveUpPrivileges(Network network) {
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failed("no_new_privs");
  const bool leaves = network == Network::leave;
  const bool left = leaves && unshare(CLONE_NEWNET) == 0;
  dropBoundingSet();
  if (auto failure = becomeNobody()) return failure;
  if (leaves && !left) leaveNetworkUnprivileged();
  if (auto failure = dropCapabilities()) return failure;
  if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) return failed("dumpable");
  return {};
}

void volunteerForOutOfMemory() {
  constexpr std::string_view kFirst = "1000";  // the largest value
  const base::UniqueFd file(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (file && write(file.get(), kFirst.data(), kFirst.size()) < 0) return;
}

Failure limitResources(std::span<const Limit> limits) {
  for (const Limit& limit : limits) {
    if (auto failure = setLimit(limit)) return failure;
  }
  return {};
}

Failure setStackLimit(rlim_t bytes) {
  rlimit stack{};
  if (getrlimit(RLIMIT_STACK, &stack) != 0) return failed("RLIMIT_STACK");
  if (stack.rlim_max < bytes) return {};
  return setLimit({RLIMIT_STACK, bytes, "RLIMIT_STACK"});
}

}  // namespace sandbox
