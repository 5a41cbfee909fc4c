// getdhcpinfo for a device with several uplinks.
//
// Its network service keeps the leases of all uplinks in one file, the best uplink first. Each line
// has the interface, the state and the URL of option 252 ("-" if there is none):
//
//   wan0 down http://wpad.office.example/proxy.pac
//   wwan0 up -
//
// The lease in force is that of the first uplink that is up.
#include <cstring>
#include <sstream>
#include <string>

#include "base/log_line.h"
#include "base/small_file.h"
#include "platform/netservice/dhcp_info.h"

namespace {

constexpr char kUplinks[] = "/run/uplinks/leases";
// Enough for dozens of uplinks. A larger file is not a list of leases.
constexpr std::size_t kUplinksLimit = std::size_t{64} * 1024;

std::string scriptUrl(const std::string& leases) {
  std::istringstream lines(leases);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string interface, state, url;
    if (words >> interface >> state >> url && state == "up") return url == "-" ? "" : url;
  }
  return "";
}

}  // namespace

int getdhcpinfo(DhcpInfo* info) {
  *info = {};
  const auto [leases, failure] = base::readFile(kUplinks, {.mostBytes = kUplinksLimit});
  // No uplink yet, so there is no lease. This is not an error.
  if (failure.problem == base::FileProblem::missing) return 0;
  if (failure) {
    logLine(LOG_ERR, "netservice: %s not read: %s", kUplinks, std::strerror(failure.error));
    return failure.error;
  }
  const std::string url = scriptUrl(leases);
  if (url.size() >= sizeof info->option252) {
    logLine(LOG_WARNING, "netservice: option 252 of %zu characters is left out", url.size());
    return 0;
  }
  std::memcpy(info->option252, url.data(), url.size());
  return 0;
}
