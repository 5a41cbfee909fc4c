#include "platform/netservice/dhcp_info.h"

#include <cstring>
#include <string>

#include "base/log_line.h"
#include "base/paths.h"
#include "base/small_file.h"
#include "platform/netservice/dhcp_conf.h"

namespace {

// A lease has a few hundred bytes. A file longer than this limit is not a lease.
constexpr std::size_t kLeaseFileLimit = std::size_t{64} * 1024;

}  // namespace

int getdhcpinfo(DhcpInfo* info) {
  *info = {};
  const auto [text, failure] =
      base::readFile(base::kLeaseFile, base::inTrustedFolder(kLeaseFileLimit));
  if (failure.problem == base::FileProblem::missing) {
    logLine(LOG_DEBUG, "netservice: no lease file %s", base::kLeaseFile);
    return 0;
  }
  if (failure) {
    logLine(LOG_ERR, "netservice: %s not read: %s", base::kLeaseFile, std::strerror(failure.error));
    return failure.error;
  }
  std::string wpad = netservice::wpadValue(text);
  constexpr std::size_t room = sizeof info->option252 - 1;
  if (wpad.size() > room) {
    logLine(LOG_WARNING, "netservice: option 252 of %zu characters is cut to %zu", wpad.size(),
            room);
    wpad.resize(room);
  }
  std::memcpy(info->option252, wpad.data(), wpad.size());
  return 0;
}
