// proxymanager-lease: the program that the hooks of all DHCP clients call.
//
// Each hook contains its client's names for the values, and passes the values as arguments. All
// checks are here, in one place. This is a program and not a shell script, because a shell's
// redirection follows links and opens fifos. This would be unsafe, because everybody may write to
// the folder of one of the files.
//
// The lease of each interface is kept (lease_store.h). The default route decides which lease is
// written to the two files that the daemon reads. Each call makes this choice again. Files that
// already have the chosen values are not touched.
#include <sysexits.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/log_line.h"
#include "base/paths.h"
#include "platform/netservice/lease_store.h"
#include "platform/netservice/lease_text.h"
#include "platform/netservice/watched_file.h"

namespace {

using netservice::LeaseEncoding;
using netservice::LeaseStore;
using netservice::LeaseTexts;
using netservice::LeaseValues;
using netservice::WatchedFile;

constexpr char kStore[] = "/run/proxymanager";

constexpr char kUsage[] =
    "usage: proxymanager-lease plain|escaped|hex INTERFACE WPAD DOMAIN SEARCH\n"
    "       proxymanager-lease end INTERFACE\n"
    "\n"
    "Called by the hooks of DHCP clients. Keeps the values of a new lease of\n"
    "INTERFACE, or forgets them if the lease has ended. Of all leases the one of the\n"
    "default route is written to /usr/local/lumad/dhcp.conf, and its search list to\n"
    "/tmp/.resolv.conf.dnsmasq.\n"
    "\n"
    "  WPAD     option 252; \"hex\" if the client gives two digits a byte\n"
    "  DOMAIN   option 15; \"escaped\" if the client escapes values with backslashes\n"
    "  SEARCH   option 119, names between blanks\n";

bool failed(const char* path, int trouble) {
  if (trouble != 0) {
    logLine(LOG_ERR, "netservice: %s not written: %s", path, std::strerror(trouble));
  }
  return trouble != 0;
}

// Both files are opened first, so that the two writes follow each other at once. The daemon reads
// both files as soon as one of them changes.
int write(const LeaseTexts& texts) {
  WatchedFile lease;
  WatchedFile resolver;
  const int noLease = lease.open(base::kLeaseFile);
  const int noResolver = resolver.open(base::kResolverFile);
  const bool resolverFailed =
      failed(base::kResolverFile, noResolver != 0 ? noResolver : resolver.replace(texts.resolver));
  const bool leaseFailed =
      failed(base::kLeaseFile, noLease != 0 ? noLease : lease.replace(texts.lease));
  return resolverFailed || leaseFailed ? EX_IOERR : EX_OK;
}

/// Writes the lease in force. `interface` is the interface of this call. If no interface has a
/// lease, the files get the name `interface` and no values.
int writeLeaseInForce(LeaseStore& store, const std::string& interface) {
  const auto leases = store.leases(interface);
  const auto* lease = netservice::leaseInForce(
      leases, netservice::defaultRouteInterfaces(netservice::routeTable()));
  if (lease != nullptr) return write(netservice::leaseTextsOf(lease->text));
  return write(netservice::leaseTexts(LeaseEncoding::plain, {interface, {}, {}, {}}));
}

int begin(LeaseEncoding encoding, const LeaseValues& values) {
  const std::string interface(values.interface);
  const LeaseTexts texts = netservice::leaseTexts(encoding, values);
  LeaseStore store(kStore);
  int trouble = store.open();
  if (trouble == 0) trouble = store.keep(interface, texts.lease + texts.resolver);
  // The lease is written even if the store fails. A device with only one interface (most devices)
  // needs no store.
  if (failed(kStore, trouble)) return write(texts) == EX_OK ? EX_OSERR : EX_IOERR;
  return writeLeaseInForce(store, interface);
}

/// Whether the file that the daemon reads has the values of `interface`.
bool isInForce(const std::string& interface) {
  WatchedFile lease;
  return !failed(base::kLeaseFile, lease.open(base::kLeaseFile)) &&
         netservice::isLeaseOf(lease.text(), interface);
}

int end(const std::string& interface) {
  LeaseStore store(kStore);
  if (failed(kStore, store.open())) return EX_OSERR;
  const int trouble = store.forget(interface);
  if (trouble != ENOENT && failed(kStore, trouble)) return EX_OSERR;
  // Most reports that a lease has ended are for interfaces that never had a lease. Even then, the
  // choice is made again if the store has other leases, because another interface may have vanished
  // without a report. If the store is empty, the file keeps its text, which may come from another
  // program. But a lease of `interface` is removed from the file: a lease of an earlier boot or
  // version is only in the file, not in the store.
  if (trouble == ENOENT && store.isEmpty() && !isInForce(interface)) return EX_OK;
  return writeLeaseInForce(store, interface);
}

int usage(std::FILE* stream) {
  std::fputs(kUsage, stream);
  return stream == stderr ? EX_USAGE : EX_OK;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view action = argc > 1 ? argv[1] : "";
  openlog("proxymanager-lease", LOG_PID | LOG_PERROR, LOG_DAEMON);
  if (action == "--help") return usage(stdout);
  if (argc != 6 && !(action == "end" && argc == 3)) return usage(stderr);
  if (!netservice::isInterfaceName(argv[2])) {
    logLine(LOG_ERR, "netservice: not the name of a network interface");
    return EX_USAGE;
  }
  if (argc == 3) return end(argv[2]);
  const LeaseValues values{argv[2], argv[3], argv[4], argv[5]};
  if (action == "plain") return begin(LeaseEncoding::plain, values);
  if (action == "escaped") return begin(LeaseEncoding::escaped, values);
  if (action == "hex") return begin(LeaseEncoding::hex, values);
  return usage(stderr);
}
