// System calls without the C library's functions around them, for programs that test the
// restrictions of a sandbox from inside.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

inline void call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0,
                 long f = 0) {
  syscall(number, a, b, c, d, e, f);
}

/// Starts a process as vfork does. Newer architectures, such as arm64, have only clone for this.
inline void callVfork() {
#ifdef SYS_vfork
  call(SYS_vfork);
#else
  call(SYS_clone, CLONE_VM | CLONE_VFORK | SIGCHLD);
#endif
}

/// An address as an argument of a call.
inline long pointer(const void* address) {
  return reinterpret_cast<long>(address);
}
