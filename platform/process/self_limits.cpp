#include "platform/process/self_limits.h"

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "base/log_line.h"

namespace process {
namespace {

// glibc's initial size, which it no longer raises once it is set.
constexpr int kMappedApartBytes = 128 * 1024;
// The bus thread allocates most; the others share the second heap.
constexpr int kMostHeaps = 2;

}  // namespace

bool forbidDumps() {
  const rlimit none{0, 0};
  const bool isForbidden = setrlimit(RLIMIT_CORE, &none) == 0 &&
                           (PROXYMANAGER_SANITIZED || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0);
  if (!isForbidden) {
    logLine(LOG_WARNING, "process: cannot forbid memory dumps: %s", std::strerror(errno));
  }
  return isForbidden;
}

void keepCapabilitiesFromChildren() {
  // Fails only if the kernel has no ambient set.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
}

bool returnFreedMemory() {
  const bool isSet =
      mallopt(M_MMAP_THRESHOLD, kMappedApartBytes) == 1 && mallopt(M_ARENA_MAX, kMostHeaps) == 1;
  if (!isSet) logLine(LOG_WARNING, "process: the allocator keeps the memory that is freed");
  return isSet;
}

}  // namespace process
