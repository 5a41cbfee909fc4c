#include "platform/netservice/dhcp_info.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "base/log_line.h"
#include "platform/netservice/dhcp_conf.h"
#include "platform/netservice/plain_file.h"

namespace {

constexpr char kLeaseFile[] = "/usr/local/lumad/dhcp.conf";
// A lease is a few hundred bytes; a file past this is something else.
constexpr std::size_t kLeaseFileLimit = std::size_t{64} * 1024;

}  // namespace

int getdhcpinfo(DhcpInfo* info) {
  *info = {};
  std::string text;
  const int trouble =
      netservice::readPlainFile(kLeaseFile, kLeaseFileLimit, netservice::FileOwner::anybody, text);
  if (trouble == ENOENT) {
    logLine(LOG_DEBUG, "netservice: no lease file %s", kLeaseFile);
    return 0;
  }
  if (trouble != 0) {
    logLine(LOG_ERR, "netservice: %s not read: %s", kLeaseFile, std::strerror(trouble));
    return trouble;
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
