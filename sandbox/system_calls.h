// A list of the system calls that a process may still make, enforced through libseccomp. This code
// exists only in builds with PROXYMANAGER_SECCOMP. Callers use SCMP_SYS(name) for a call. Without
// PROXYMANAGER_SECCOMP, the callers are compiled out.
#pragma once

#include <seccomp.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "sandbox/walls.h"

namespace sandbox {

/// Conditions on the arguments of a call. All of them must be true.
using Arguments = std::vector<scmp_arg_cmp>;

/// Argument number `argument` (from 0) equals `value`, all 64 bits.
scmp_arg_cmp equals(unsigned argument, std::uint64_t value);

/// The bits `mask` of argument number `argument` are `value`. For an argument of type int, the mask
/// must not have bits above kInt, because the upper half of the register is undefined.
scmp_arg_cmp masked(unsigned argument, std::uint64_t mask, std::uint64_t value);

inline constexpr std::uint64_t kInt = 0xFFFFFFFF;

/// Collects the allowed calls. load() puts the list in force. A call that does not exist on the
/// machine's architecture is skipped. Errors are kept until load().
class SystemCalls {
 public:
  /// A call that is not on the list ends the process with SIGSYS.
  SystemCalls();

  /// Allows `call`, with the conditions in `arguments`.
  SystemCalls& allow(int call, const Arguments& arguments = {});

  /// Answers `call` with the error `error` instead of ending the process.
  SystemCalls& refuse(int call, int error, const Arguments& arguments = {});

  /// The kernel compares `call` before other calls, for speed.
  SystemCalls& first(int call);

  /// Puts the list in force until the process ends. Needs no_new_privs.
  Failure load();

 private:
  void add(std::uint32_t action, int call, const Arguments& arguments);
  void note(int result);

  std::unique_ptr<void, decltype(&seccomp_release)> mFilter;
  int mError = 0;
};

}  // namespace sandbox
