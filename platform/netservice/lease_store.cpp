#include "platform/netservice/lease_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>
#include <tuple>

#include "base/log_line.h"
#include "base/small_file.h"

namespace netservice {
namespace {

constexpr char kLeases[] = "leases";
// This cannot be the name of an interface, because isInterfaceName() refuses a dot at the
// beginning.
constexpr char kNew[] = ".new";
// Enough for the quoted texts of one lease: 255 bytes of option 252, two names, 1024 bytes of a
// search list.
constexpr std::size_t kLongestLease = 8 * 1024;
constexpr std::size_t kLongestTable = 512 * 1024;
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr std::chrono::milliseconds kLockPause{20};

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

int lock(int fd, std::chrono::milliseconds wait) {
  const auto end = std::chrono::steady_clock::now() + wait;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return errno;
    if (std::chrono::steady_clock::now() >= end) return ETIMEDOUT;
    std::this_thread::sleep_for(kLockPause);
  }
  return 0;
}

int writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  // The mode is set here, because DHCP clients have all kinds of umasks.
  return fchmod(fd, kFileMode) == 0 ? 0 : errno;
}

struct Route {
  std::string interface;
  unsigned long metric;
};

bool isDefault(unsigned long destination, unsigned long mask, unsigned long flags) {
  return destination == 0 && mask == 0 && (flags & RTF_UP) != 0 && (flags & RTF_REJECT) == 0;
}

}  // namespace

int LeaseStore::openFolder(int parent, const char* name) {
  if (mkdirat(parent, name, kFolderMode) != 0 && errno != EEXIST) return errno;
  base::UniqueFd folder(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder || fstat(folder.get(), &status) != 0) return errno;
  if (status.st_uid != 0 && status.st_uid != geteuid()) return EPERM;
  mLeases = std::move(folder);
  return 0;
}

int LeaseStore::open() {
  int trouble = openFolder(AT_FDCWD, mFolder.c_str());
  if (trouble == 0) trouble = openFolder(mLeases.get(), kLeases);
  return trouble != 0 ? trouble : lock(mLeases.get(), mWait);
}

int LeaseStore::keep(const std::string& interface, const std::string& text) {
  const std::string path = mFolder + '/' + kLeases + '/' + interface;
  // An unchanged text is not written again: the time of the last change counts, not the time of the
  // last renewal.
  if (base::readFile(path.c_str(), {.mostBytes = kLongestLease}).text == text) return 0;
  const base::UniqueFd file(openat(
      mLeases.get(), kNew, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file) return errno;
  int trouble = writeAll(file.get(), text);
  if (trouble == 0 && renameat(mLeases.get(), kNew, mLeases.get(), interface.c_str()) != 0) {
    trouble = errno;
  }
  if (trouble != 0) unlinkat(mLeases.get(), kNew, 0);
  return trouble;
}

int LeaseStore::forget(const std::string& interface) {
  return unlinkat(mLeases.get(), interface.c_str(), 0) == 0 ? 0 : errno;
}

bool LeaseStore::isEmpty() const {
  const std::unique_ptr<DIR, CloseFolder> folder(opendir((mFolder + '/' + kLeases).c_str()));
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    if (isInterfaceName(entry->d_name)) return false;
  }
  return true;
}

std::vector<KeptLease> LeaseStore::leases(const std::string& interface) {
  const std::string path = mFolder + '/' + kLeases + '/';
  std::vector<KeptLease> found;
  const std::unique_ptr<DIR, CloseFolder> folder(opendir(path.c_str()));
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (!isInterfaceName(name)) continue;
    if (name != interface && if_nametoindex(name.c_str()) == 0) {
      forget(name);
      continue;
    }
    const auto file = base::openFile((path + name).c_str(), {.mostBytes = kLongestLease});
    auto content = file.failure ? base::FileText{{}, file.failure}
                                : base::readToEnd(file.fd.get(), kLongestLease);
    if (content.failure) {
      logLine(LOG_ERR, "netservice: %s%s not read: %s", path.c_str(), name.c_str(),
              std::strerror(content.failure.error));
      continue;
    }
    found.push_back({name, std::move(content.text), file.status.st_mtim});
  }
  return found;
}

bool isInterfaceName(std::string_view name) {
  return !name.empty() && name.size() < IFNAMSIZ && name.front() != '.' &&
         std::none_of(name.begin(), name.end(), [](char c) {
           return static_cast<unsigned char>(c) <= ' ' || c == '/' || c == 0x7f;
         });
}

std::vector<std::string> defaultRouteInterfaces(const std::string& table) {
  std::vector<Route> routes;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    // The columns are Iface Destination Gateway Flags RefCnt Use Metric Mask ...; addresses and
    // flags are hexadecimal.
    std::istringstream words(line);
    std::string interface;
    std::string gateway;
    unsigned long destination = 0, flags = 0, count = 0, uses = 0, metric = 0, mask = 0;
    words >> interface >> std::hex >> destination >> gateway >> flags >> std::dec >> count >>
        uses >> metric >> std::hex >> mask;
    if (words && isDefault(destination, mask, flags)) routes.push_back({interface, metric});
  }
  std::stable_sort(routes.begin(), routes.end(),
                   [](const Route& a, const Route& b) { return a.metric < b.metric; });
  std::vector<std::string> interfaces;
  for (Route& route : routes) interfaces.push_back(std::move(route.interface));
  return interfaces;
}

std::string routeTable() {
  std::string table(kLongestTable, '\0');
  const base::UniqueFd file(open("/proc/self/net/route", O_RDONLY | O_CLOEXEC));
  std::size_t length = 0;
  while (file && length < table.size()) {
    const ssize_t got = read(file.get(), table.data() + length, table.size() - length);
    if (got == 0 || (got < 0 && errno != EINTR)) break;
    if (got > 0) length += static_cast<std::size_t>(got);
  }
  table.resize(length);
  return table;
}

const KeptLease* leaseInForce(const std::vector<KeptLease>& leases,
                              const std::vector<std::string>& routes) {
  for (const std::string& interface : routes) {
    const auto found = std::find_if(leases.begin(), leases.end(), [&](const KeptLease& lease) {
      return lease.interface == interface;
    });
    if (found != leases.end()) return &*found;
  }
  const auto last =
      std::max_element(leases.begin(), leases.end(), [](const KeptLease& a, const KeptLease& b) {
        return std::tie(a.since.tv_sec, a.since.tv_nsec) <
               std::tie(b.since.tv_sec, b.since.tv_nsec);
      });
  return last != leases.end() ? &*last : nullptr;
}

}  // namespace netservice
