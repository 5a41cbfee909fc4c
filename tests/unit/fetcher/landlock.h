// Landlock limits the files of the fetch process. Some kernels and the emulators of user programs
// do not have Landlock.
#pragma once

#include <linux/landlock.h>
#include <sys/syscall.h>
#include <unistd.h>

inline constexpr const char* kNoLandlockLine =
    "fetcher: the kernel has no Landlock, the fetch process can read what its user can";

inline bool kernelHasLandlock() {
  return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) > 0;
}
