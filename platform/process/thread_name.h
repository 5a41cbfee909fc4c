// Names of threads, as ps, top and debuggers show them.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace process {
/// The longest thread name that the kernel stores, in bytes without the terminator (TASK_COMM_LEN -
/// 1).
inline constexpr std::size_t kThreadNameLimit = 15;
}  // namespace process

/// Names a thread of this process. A longer name is cut to kThreadNameLimit bytes. Any thread.
/// @param tid the thread, as gettid() returns it
/// @return 0, or an errno value: EINVAL for a null or empty name, ENOENT for a thread of another
///         process. The log line is "process: cannot name thread TID: REASON" (LOG_WARNING)
int pthread_name_np(pid_t tid, const char* name);
