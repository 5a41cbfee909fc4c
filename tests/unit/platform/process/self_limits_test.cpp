#include "platform/process/self_limits.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

TEST(SelfLimits, LeaveNoCoreAndNothingToTrace) {
  process::forbidDumps();
  rlimit core{1, 1};
  ASSERT_EQ(getrlimit(RLIMIT_CORE, &core), 0);
  EXPECT_EQ(core.rlim_cur, 0U);
  EXPECT_EQ(core.rlim_max, 0U) << "nor can it be raised again";
#if !PROXYMANAGER_SANITIZED
  EXPECT_EQ(prctl(PR_GET_DUMPABLE), 0);
#endif
}

bool raiseAmbient(unsigned capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capget, &header, sets) != 0) return false;
  sets[0].inheritable |= 1U << capability;
  return syscall(SYS_capset, &header, sets) == 0 &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0) == 0;
}

TEST(SelfLimits, KeepACapabilityFromChildrenAndLeaveItToTheProcess) {
  if (!raiseAmbient(CAP_FOWNER)) GTEST_SKIP() << "needs the capability";
  ASSERT_EQ(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, CAP_FOWNER, 0, 0), 1);
  process::keepCapabilitiesFromChildren();
  EXPECT_EQ(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, CAP_FOWNER, 0, 0), 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
  ASSERT_EQ(syscall(SYS_capget, &header, sets), 0);
  EXPECT_NE(sets[0].effective & 1U << CAP_FOWNER, 0U);
}

/// The anonymous memory of this process in KiB.
long anonymousKib() {
  std::ifstream status("/proc/self/status");
  for (std::string name; status >> name;) {
    long value = 0;
    if (name == "RssAnon:" && status >> value) return value;
  }
  return -1;
}

/// Allocates and frees a block of the size of a long message, twice. By default, the allocator
/// would take the second block from its heap, and would keep the memory after the block is freed.
void allocateAndFree() {
  constexpr std::size_t kLong = std::size_t{31} << 20U;
  for (int count = 0; count < 2; ++count) {
    void* const block = std::malloc(kLong);
    std::memset(block, 1, kLong);
    // The compiler must not see that the block is never read.
    asm volatile("" : : "g"(block) : "memory");
    std::free(block);
  }
}

TEST(SelfLimits, GiveLargeBlocksBackToTheSystem) {
#if PROXYMANAGER_SANITIZED
  GTEST_SKIP() << "the sanitizer brings an allocator of its own";
#endif
  process::returnFreedMemory();
  const long before = anonymousKib();
  allocateAndFree();
  EXPECT_LT(anonymousKib() - before, 1024);
}

}  // namespace
