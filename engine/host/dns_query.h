// One name lookup through c-ares. It searches the hosts file and asks the name servers, in the
// order of the resolver configuration.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/host/file_change.h"
#include "engine/wire/address_family.h"
#include "engine/wire/channel.h"

namespace pac_engine {

enum class LookupEnd : std::uint8_t {
  kDone,      ///< there is an answer, maybe "no such name"
  kTooLate,   ///< no answer by the deadline
  kAbandoned  ///< the caller is gone, or there is no memory
};

struct LookupResult {
  LookupEnd end = LookupEnd::kDone;
  std::vector<std::string> addresses;  ///< in the order of preference (RFC 6724)
  std::chrono::seconds lifetime{0};    ///< shortest TTL of the records; 0 for the hosts file
};

/// The resolver. Two threads must not use it at the same time. Its sockets are closed at the end of
/// each lookup.
class DnsResolver {
 public:
  /// @param servers "address[:port],..."; if empty, the configured servers
  explicit DnsResolver(std::string servers);
  ~DnsResolver();
  DnsResolver(const DnsResolver&) = delete;
  DnsResolver& operator=(const DnsResolver&) = delete;

  /// Whether the resolver's configuration has been replaced since the last call. If so, the next
  /// lookup reads the configuration again. The first call returns false.
  bool configurationChanged();

  /// Looks up `name` (ASCII) on the calling thread until `deadline`. The lookup ends early if the
  /// peer of the socket `watched` closes the connection.
  LookupResult lookUp(const std::string& name, pac_engine::AddressFamily family, Deadline deadline,
                      int watched);

 private:
  struct Resolver;  ///< c-ares' channel
  std::string mServers;
  std::unique_ptr<Resolver> mResolver;
  FileChange mConfiguration{"/etc/resolv.conf"};
};

}  // namespace pac_engine
