#include "sandbox/file_access.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "base/unique_fd.h"

namespace sandbox {

namespace {

// The rights of Landlock's first version, and the rights that later versions added (move files
// between folders, truncate them, control devices). Old headers of the system do not define the
// later rights.
constexpr std::uint64_t kFirstRights = (std::uint64_t{LANDLOCK_ACCESS_FS_MAKE_SYM} << 1U) - 1;
constexpr std::uint64_t kMoveRight = std::uint64_t{1} << 13U;
constexpr std::uint64_t kCutRight = std::uint64_t{1} << 14U;
constexpr std::uint64_t kDeviceRight = std::uint64_t{1} << 15U;
constexpr std::uint64_t kReadFile = LANDLOCK_ACCESS_FS_READ_FILE;
constexpr std::uint64_t kReadFolder = LANDLOCK_ACCESS_FS_READ_DIR;

std::uint64_t rightsOfVersion(long version) {
  std::uint64_t rights = kFirstRights;
  if (version >= 2) rights |= kMoveRight;
  if (version >= 3) rights |= kCutRight;
  if (version >= 5) rights |= kDeviceRight;
  return rights;
}

Failure allowReading(int rules, const char* path) {
  const base::UniqueFd place(open(path, O_PATH | O_CLOEXEC));
  struct stat status {};
  if (!place || fstat(place.get(), &status) != 0) return {};
  landlock_path_beneath_attr rule{};
  rule.allowed_access = S_ISDIR(status.st_mode) ? kReadFile | kReadFolder : kReadFile;
  rule.parent_fd = place.get();
  if (syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &rule, 0U) != 0) {
    return failed("landlock_add_rule");
  }
  return {};
}

}  // namespace

Failure readOnly(std::span<const char* const> paths, bool& inForce) {
  inForce = false;
  const long version =
      syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  // The errors of a kernel without Landlock: ENOSYS, or EOPNOTSUPP if it is turned off, or EPERM if
  // a supervisor's list of system calls forbids it.
  if (version < 1) return {};
  landlock_ruleset_attr handled{};
  handled.handled_access_fs = rightsOfVersion(version);
  const base::UniqueFd rules(static_cast<int>(
      syscall(SYS_landlock_create_ruleset, &handled, sizeof handled.handled_access_fs, 0U)));
  if (!rules) return failed("landlock_create_ruleset");
  for (const char* path : paths) {
    if (auto failure = allowReading(rules.get(), path)) return failure;
  }
  if (syscall(SYS_landlock_restrict_self, rules.get(), 0U) != 0) {
    return failed("landlock_restrict_self");
  }
  inForce = true;
  return {};
}

}  // namespace sandbox
