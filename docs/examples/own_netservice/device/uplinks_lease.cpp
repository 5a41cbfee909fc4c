// getdhcpinfo for a device with several uplinks.
//
// Its network service keeps the leases of all of them in one file, the best first, each a line of
// interface, state and the URL of option 252, "-" for none:
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
// Dozens of uplinks; a file past this is something else.
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
  // No uplink yet: no lease, which is no error.
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
