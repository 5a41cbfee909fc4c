#include "fetcher/target_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include "base/ascii.h"

namespace fetcher {

namespace {

constexpr std::size_t kRandomDigits = 16;
constexpr mode_t kMode = 0644;
// Another user may create a folder at this name in a loop. Even then, each try succeeds with a
// probability above one half.
constexpr int kMostTries = 100;

/// `path`, a dot and random digits. The name is empty, with errno set, if the system has no random
/// bytes.
std::string randomName(const std::string& path) {
  std::uint64_t number = 0;
  if (getrandom(&number, sizeof number, 0) != sizeof number) return {};
  char digits[kRandomDigits + 1];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(number));
  return path + "." + digits;
}

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

/// Makes a new file at `name`: first a file without a name, which then gets its name. If the file
/// system does not support files without a name, the file is created with its name. This is safe,
/// because no program can guess the name.
base::UniqueFd createAt(const std::string& name) {
  base::UniqueFd file(open(folderOf(name).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kMode));
  const std::string descriptor = "/proc/self/fd/" + std::to_string(file.get());
  if (file &&
      linkat(AT_FDCWD, descriptor.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
    return file;
  }
  file.reset(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  return file;
}

/// If there is a folder of another user at `path`, gives it another name.
/// @return false if a folder is still at `path`
bool clearedOfFolder(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return true;
  if (status.st_uid == 0 || status.st_uid == geteuid()) return false;
  const std::string aside = randomName(path + ".aside");
  return !aside.empty() && (rename(path.c_str(), aside.c_str()) == 0 || errno == ENOENT);
}

bool hasTheirForm(std::string_view name, std::string_view base) {
  if (!name.starts_with(base)) return false;
  name.remove_prefix(base.size());
  return name.size() == kRandomDigits + 1 && name.front() == '.' &&
         std::all_of(name.begin() + 1, name.end(), [](char c) { return base::hexValue(c) >= 0; });
}

}  // namespace

base::UniqueFd createTargetFile(const std::string& path) {
  const std::string name = randomName(path);
  if (name.empty()) return {};
  base::UniqueFd file = createAt(name);
  if (!file) return file;
  if (renameOver(name, path)) return file;
  const int error = errno;
  unlink(name.c_str());
  file.reset();
  errno = error;
  return file;
}

bool renameOver(const std::string& from, const std::string& to) {
  for (int tries = 0; tries < kMostTries; ++tries) {
    if (rename(from.c_str(), to.c_str()) == 0) return true;
    if (errno != EISDIR) return false;
    if (!clearedOfFolder(to)) break;
  }
  errno = EISDIR;
  return false;
}

void removeLeftTargets(const std::string& path) {
  const std::string folder = folderOf(path);
  const std::string base = path.substr(path.rfind('/') + 1);
  const std::unique_ptr<DIR, decltype([](DIR* open) { closedir(open); })> entries(
      opendir(folder.c_str()));
  if (!entries) return;
  while (const dirent* entry = readdir(entries.get())) {
    struct stat status {};
    if ((entry->d_name != base && !hasTheirForm(entry->d_name, base)) ||
        fstatat(dirfd(entries.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    if (S_ISREG(status.st_mode) && status.st_uid == geteuid()) {
      unlinkat(dirfd(entries.get()), entry->d_name, 0);
    }
  }
}

}  // namespace fetcher
