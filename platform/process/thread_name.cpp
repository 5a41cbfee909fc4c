#include "platform/process/thread_name.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/log_line.h"
#include "base/unique_fd.h"

namespace {

int nameOther(pid_t tid, const std::string& name) {
  char path[sizeof "/proc/self/task/-2147483648/comm"];
  std::snprintf(path, sizeof path, "/proc/self/task/%d/comm", tid);
  const base::UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
  if (!file) return errno;
  return write(file.get(), name.data(), name.size()) < 0 ? errno : 0;
}

int nameThread(pid_t tid, const char* name) {
  if (name == nullptr || name[0] == '\0') return EINVAL;
  const std::string cut(name, strnlen(name, process::kThreadNameLimit));
  // A thread can set its own name without /proc, which may be missing in a sandbox or during an
  // early boot.
  if (tid == gettid()) return prctl(PR_SET_NAME, cut.c_str()) == 0 ? 0 : errno;
  return nameOther(tid, cut);
}

}  // namespace

int pthread_name_np(pid_t tid, const char* name) {
  const int error = nameThread(tid, name);
  if (error != 0) {
    logLine(LOG_WARNING, "process: cannot name thread %d: %s", tid, std::strerror(error));
  }
  return error;
}
