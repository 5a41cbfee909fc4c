// Stores the leases of all interfaces. When one lease ends, the lease of another interface comes
// into force.
//
// A device may have several links, each with a lease, but the daemon supports only one network. The
// hooks report each interface separately. The store keeps one file for each interface, and the
// default route decides which lease is in force. The store's folder is below /run, because a lease
// is not valid after the next boot.
#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace netservice {

/// How long open() waits until another process has closed the store. Such a process only reads and
/// writes a few small files. Without a limit, a stopped process would block every DHCP client of
/// the device.
inline constexpr std::chrono::seconds kStoreWait{10};

/// The stored lease of one interface.
struct KeptLease {
  std::string interface;
  std::string text;       ///< the text that keep() stored
  std::timespec since{};  ///< when this text was stored, by the system clock
};

/// The store. One process at a time uses it. Two threads must not use it at the same time.
class LeaseStore {
 public:
  /// @param folder contains the folder "leases"; both are made if they are missing
  /// @param wait   how long open() waits
  explicit LeaseStore(std::string folder, std::chrono::milliseconds wait = kStoreWait)
      : mFolder(std::move(folder)), mWait(wait) {}

  /// Opens the store. If another process has it open, waits as long as the constructor's `wait`
  /// allows. This object then keeps the store open until its destruction.
  /// @return 0, or an errno value: ETIMEDOUT after the wait, EPERM for a folder of another user,
  ///         else the errno of mkdir, open or flock
  int open();

  /// Stores `text` as the lease of `interface`. Writes nothing if the text has not changed.
  /// @param interface a name for which isInterfaceName() is true
  /// @return 0, or the errno value of the failed call; the previous lease is then still stored
  int keep(const std::string& interface, const std::string& text);

  /// Forgets the lease of `interface`. @return 0, ENOENT if there was none, or an errno value
  int forget(const std::string& interface);

  /// Whether the store is empty. A lease of an interface that no longer exists also counts.
  bool isEmpty() const;

  /// Removes the leases of interfaces that have vanished without a report from their DHCP client.
  /// It never removes the lease of `interface`.
  /// @return the remaining leases, in any order; a lease that cannot be read is skipped, with one
  ///         LOG_ERR line
  std::vector<KeptLease> leases(const std::string& interface);

 private:
  int openFolder(int parent, const char* name);

  std::string mFolder;
  std::chrono::milliseconds mWait;
  base::UniqueFd mLeases;
};

/// Whether `name` can be the name of an interface: it is not empty, has 15 bytes at most
/// (IFNAMSIZ), contains no slash, blank or control character, and does not begin with a dot.
bool isInterfaceName(std::string_view name);

/// The interfaces of the IPv4 default routes in `table`, the text of /proc/net/route: the lowest
/// metric first, equal metrics in the order of the table. Skips routes that are down or that reject
/// packets.
std::vector<std::string> defaultRouteInterfaces(const std::string& table);

/// The text of /proc/net/route for the network of the calling thread, 512 KiB at most. Default
/// routes come first in this text. The result is empty if the file cannot be read.
std::string routeTable();

/// The lease in force. Among the interfaces with a lease and a default route, the interface with
/// the best route decides. If there is no such interface, the lease that changed last is in force.
/// @return null if there is no lease
const KeptLease* leaseInForce(const std::vector<KeptLease>& leases,
                              const std::vector<std::string>& routes);

}  // namespace netservice
