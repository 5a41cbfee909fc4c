// proxymanager-lease: what the hooks of all DHCP clients call.
//
// Each hook knows its client's names for the values and hands them over as arguments; everything
// that has to be right is here, once. A program, not a shell script: a shell's redirection follows
// links and opens fifos, and one of the files lies in a folder that is everybody's.
//
// One lease at a time: that of the interface that was configured last. The end of another
// interface's lease changes nothing.
#include <sysexits.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/log_line.h"
#include "base/paths.h"
#include "platform/netservice/lease_text.h"
#include "platform/netservice/watched_file.h"

namespace {

using netservice::LeaseEncoding;
using netservice::LeaseValues;
using netservice::WatchedFile;

constexpr char kUsage[] =
    "usage: proxymanager-lease plain|escaped|hex INTERFACE WPAD DOMAIN SEARCH\n"
    "       proxymanager-lease end INTERFACE\n"
    "\n"
    "Called by the hooks of DHCP clients: writes the values of a new lease to\n"
    "/usr/local/lumad/dhcp.conf and its search list to /tmp/.resolv.conf.dnsmasq, or takes them "
    "out\n"
    "where the lease of INTERFACE has ended.\n"
    "\n"
    "  WPAD     option 252; \"hex\" where the client gives two digits a byte\n"
    "  DOMAIN   option 15; \"escaped\" where the client escapes values with backslashes\n"
    "  SEARCH   option 119, names between blanks\n";

bool said(const char* path, int trouble) {
  if (trouble != 0) {
    logLine(LOG_ERR, "netservice: %s not written: %s", path, std::strerror(trouble));
  }
  return trouble != 0;
}

// Both are opened before the first is written: the daemon reads them as soon as one changes.
int write(LeaseEncoding encoding, const LeaseValues& values) {
  WatchedFile lease;
  WatchedFile resolver;
  const int noLease = lease.open(base::kLeaseFile);
  const int noResolver = resolver.open(base::kResolverFile);
  bool failed = said(
      base::kResolverFile,
      noResolver != 0 ? noResolver : resolver.replace(netservice::resolverText(encoding, values)));
  failed |= said(base::kLeaseFile,
                 noLease != 0 ? noLease : lease.replace(netservice::leaseText(encoding, values)));
  return failed ? EX_IOERR : EX_OK;
}

int end(const char* interface) {
  WatchedFile lease;
  if (const int trouble = lease.open(base::kLeaseFile); said(base::kLeaseFile, trouble))
    return EX_IOERR;
  if (!netservice::isLeaseOf(lease.text(), interface)) return EX_OK;
  return write(LeaseEncoding::plain, {interface, {}, {}, {}});
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
  if (action == "end" && argc == 3) return end(argv[2]);
  if (argc != 6) return usage(stderr);
  const LeaseValues values{argv[2], argv[3], argv[4], argv[5]};
  if (action == "plain") return write(LeaseEncoding::plain, values);
  if (action == "escaped") return write(LeaseEncoding::escaped, values);
  if (action == "hex") return write(LeaseEncoding::hex, values);
  return usage(stderr);
}
