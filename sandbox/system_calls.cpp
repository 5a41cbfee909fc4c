#include "sandbox/system_calls.h"

#include <cerrno>

namespace sandbox {

scmp_arg_cmp equals(unsigned argument, std::uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}

scmp_arg_cmp masked(unsigned argument, std::uint64_t mask, std::uint64_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}

SystemCalls::SystemCalls() : mFilter(seccomp_init(SCMP_ACT_KILL_PROCESS), &seccomp_release) {
  if (!mFilter) mError = -ENOMEM;
}

SystemCalls& SystemCalls::allow(int call, const Arguments& arguments) {
  add(SCMP_ACT_ALLOW, call, arguments);
  return *this;
}

SystemCalls& SystemCalls::refuse(int call, int error, const Arguments& arguments) {
  add(SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error)), call, arguments);
  return *this;
}

SystemCalls& SystemCalls::first(int call) {
  if (mFilter) note(seccomp_syscall_priority(mFilter.get(), call, UINT8_MAX));
  return *this;
}

Failure SystemCalls::load() {
  // System calls of another architecture are forbidden, too.
  if (mError == 0) {
    note(seccomp_attr_set(mFilter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS));
  }
  if (mError == 0) note(seccomp_load(mFilter.get()));
  if (mError == 0) return {};
  errno = -mError;
  return failed("seccomp");
}

void SystemCalls::add(std::uint32_t action, int call, const Arguments& arguments) {
  if (!mFilter) return;
  note(seccomp_rule_add_array(mFilter.get(), action, call, static_cast<unsigned>(arguments.size()),
                              arguments.data()));
}

void SystemCalls::note(int result) {
  if (mError == 0 && result < 0) mError = result;
}

}  // namespace sandbox
