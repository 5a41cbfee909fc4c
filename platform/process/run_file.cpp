#include "platform/process/run_file.h"

#include <bsd/libutil.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/file_name.h"
#include "base/log_line.h"

namespace {

// Removes the file at exit. If a forked child calls exit, it must not remove the file, because its
// parent still uses it.
struct RemoveRunFile {
  pid_t owner = 0;
  void operator()(pidfh* file) const {
    if (getpid() == owner) pidfile_remove(file);
  }
};
using RunFile = std::unique_ptr<pidfh, RemoveRunFile>;

struct CloseRunFile {
  void operator()(pidfh* file) const { pidfile_close(file); }
};

std::string runFolder() {
  if (geteuid() == 0) return "/run";
  const char* const given = std::getenv("XDG_RUNTIME_DIR");
  // The definition of XDG_RUNTIME_DIR requires that relative paths are ignored.
  if (given != nullptr && given[0] == '/') return given;
  return "/run/user/" + std::to_string(geteuid());
}

int failed(const std::string& path, int error) {
  logLine(LOG_ERR, "process: cannot take the run file %s: %s", path.c_str(), std::strerror(error));
  return -1;
}

}  // namespace

int create_varrunpid(const char* name) {
  if (!base::isFileName(name)) return failed(name == nullptr ? "(null)" : name, EINVAL);
  const std::string path = runFolder() + "/" + name + ".pid";
  pid_t other = -1;
  std::unique_ptr<pidfh, CloseRunFile> opened(pidfile_open(path.c_str(), 0644, &other));
  if (opened == nullptr) {
    if (errno != EEXIST) return failed(path, errno);
    logLine(LOG_WARNING, "process: the run file %s is held by process %d", path.c_str(), other);
    return 1;
  }
  // pidfile_open leaves the descriptor open across exec, so an executed program would also hold the
  // lock.
  if (fcntl(pidfile_fileno(opened.get()), F_SETFD, FD_CLOEXEC) != 0 ||
      pidfile_write(opened.get()) != 0) {
    return failed(path, errno);
  }
  static RunFile held;
  held = RunFile(opened.release(), RemoveRunFile{getpid()});
  return 0;
}
