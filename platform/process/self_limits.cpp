#include "platform/process/self_limits.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace process {
namespace {

// glibc's initial size, which it no longer raises once it is set.
constexpr int kMappedApartBytes = 128 * 1024;
// The bus thread allocates most; the others share the second heap.
constexpr int kMostHeaps = 2;

}  // namespace

void forbidDumps() {
  // Neither call can fail: a limit may always be lowered, and a process may always give up this
  // attribute.
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  if (!PROXYMANAGER_SANITIZED) prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void keepCapabilitiesFromChildren() {
  // Fails only if the kernel has no ambient set.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
}

void returnFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, kMappedApartBytes);
  mallopt(M_ARENA_MAX, kMostHeaps);
}

}  // namespace process
