#include "tests/support/own_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

void require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "own root: %s: %s (these tests need mount namespaces)\n", what,
               std::strerror(errno));
  std::exit(77);
}

void write(const char* path, const std::string& text) {
  std::ofstream(path) << text;
}

void mountEmpty(const fs::path& path, const char* options) {
  require(mount("tmpfs", path.c_str(), "tmpfs", MS_NOSUID, options) == 0, path.c_str());
}

void bind(const fs::path& source, const fs::path& target) {
  require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          target.c_str());
}

bool isBelow(const fs::path& path, const fs::path& folder) {
  return path.lexically_relative(folder).native().substr(0, 2) != "..";
}

// An empty folder in place of `path`, except for the tree under test if it is below `path`.
void replaceByEmpty(const fs::path& path, const char* options) {
  const fs::path full = "/mnt/full";
  fs::create_directories(full);
  mountEmpty(full, options);
  for (const fs::path tree : {PROXYMANAGER_SOURCE_FOLDER, PROXYMANAGER_BUILD_FOLDER}) {
    if (!isBelow(tree, path)) continue;
    const fs::path place = full / tree.lexically_relative(path);
    fs::create_directories(place);
    bind(tree, place);
  }
  bind(full, path);
  require(umount2(full.c_str(), MNT_DETACH) == 0, "umount");
}

/// Copies one file, one link, or one folder with its content. A file that has vanished is skipped,
/// because other programs replace files there.
void copyTree(const fs::path& source, const fs::path& target) {
  std::error_code error;
  const bool folder = fs::is_directory(fs::symlink_status(source, error));
  if (folder) {
    fs::create_directory(target, source, error);
    for (fs::directory_iterator each(source, error), end; !error && each != end;
         each.increment(error)) {
      copyTree(each->path(), target / each->path().filename());
    }
  } else if (!error) {
    fs::copy(source, target, fs::copy_options::copy_symlinks, error);
  }
  errno = error.value();
  require(!error || error == std::errc::no_such_file_or_directory, source.c_str());
}

}  // namespace

void enterOwnRoot() {
  umask(022);  // the user of the tests may have another mask
  const uid_t user = getuid();
  const gid_t group = getgid();
  if (user == 0) {
    require(unshare(CLONE_NEWNS) == 0, "unshare");
  } else {
    require(unshare(CLONE_NEWNS | CLONE_NEWUSER) == 0, "unshare");
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    write("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make / private");

  // The new mounts are filled before the original folders are moved or hidden.
  mountEmpty("/mnt", "mode=0755");
  copyTree("/etc", "/mnt/etc");
  // The copy of the machine's file would make tests ask the machine's name servers.
  fs::remove("/mnt/etc/resolv.conf");
  write("/mnt/etc/resolv.conf", "nameserver 127.0.0.1\n");
  fs::create_directory("/mnt/dev");
  for (const char* device : {"null", "zero", "full", "random", "urandom", "tty"}) {
    const auto target = fs::path("/mnt/dev") / device;
    std::ofstream{target};
    bind(fs::path("/dev") / device, target);
  }
  for (const char* folder : {"shm", "pts"}) {
    const auto target = fs::path("/mnt/dev") / folder;
    fs::create_directory(target);
    bind(fs::path("/dev") / folder, target);
  }
  fs::create_symlink("/proc/self/fd", "/mnt/dev/fd");
  fs::create_symlink("pts/ptmx", "/mnt/dev/ptmx");
  bind("/mnt/etc", "/etc");
  bind("/mnt/dev", "/dev");
  replaceByEmpty("/tmp", "mode=1777");
  replaceByEmpty("/run", "mode=0755");
  replaceByEmpty("/usr/local", "mode=0755");
}
