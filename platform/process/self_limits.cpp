#include "platform/process/self_limits.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace process {
namespace {

// Blocks of this size or more are mapped separately. This is glibc's initial value. If a program
// sets the value, glibc does not raise it later.
constexpr int kMappedApartBytes = 128 * 1024;
// The bus thread allocates most memory; the other threads share the second heap.
constexpr int kMostHeaps = 2;

}  // namespace

void forbidDumps() {
  // Neither call can fail: a process may always lower a limit, and may always make itself
  // undumpable.
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  if (!PROXYMANAGER_SANITIZED) prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

void keepCapabilitiesFromChildren() {
  // This call fails only if the kernel has no ambient set.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
}

void returnFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, kMappedApartBytes);
  mallopt(M_ARENA_MAX, kMostHeaps);
}

}  // namespace process
