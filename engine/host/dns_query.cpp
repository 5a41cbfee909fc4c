#include "engine/host/dns_query.h"

#include <ares.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "base/log_line.h"
#include "engine/wire/protocol.h"

namespace pac_engine {

namespace {

// After half a second without an answer the next server is tried. The time doubles with each try.
// So a single slow server has the whole 2 s of a lookup for its answer.
constexpr int kTryMs = 500;
constexpr int kTries = 3;

using AddrInfo = std::unique_ptr<ares_addrinfo, decltype(&ares_freeaddrinfo)>;

struct Pending {
  bool done = false;
  LookupResult result;
};

std::string textOf(const ares_addrinfo_node& node) {
  char text[INET6_ADDRSTRLEN] = "";
  // The bytes are copied, because not every machine can read unaligned values.
  if (node.ai_family == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, node.ai_addr, sizeof address);
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  } else if (node.ai_family == AF_INET6) {
    sockaddr_in6 address;
    std::memcpy(&address, node.ai_addr, sizeof address);
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
  }
  return text;
}

void take(LookupResult& result, const ares_addrinfo& list) {
  int lifetime = INT_MAX;
  for (const auto* node = list.nodes; node != nullptr && result.addresses.size() < kMaxAddresses;
       node = node->ai_next) {
    auto text = textOf(*node);
    if (text.empty()) continue;
    result.addresses.push_back(std::move(text));
    lifetime = std::min(lifetime, node->ai_ttl);
  }
  if (!result.addresses.empty()) result.lifetime = std::chrono::seconds(std::max(lifetime, 0));
}

void onAnswer(void* context, int status, int /*timeouts*/, ares_addrinfo* answer) {
  auto& pending = *static_cast<Pending*>(context);
  const AddrInfo list(answer, &ares_freeaddrinfo);
  pending.done = true;
  if (status == ARES_ECANCELLED) {
    pending.result.end = LookupEnd::kTooLate;
  } else if (status == ARES_ENOMEM) {
    pending.result.end = LookupEnd::kAbandoned;
  } else if (status == ARES_SUCCESS && list) {
    try {
      take(pending.result, *list);
    } catch (const std::exception&) {
      // Memory is exhausted. An exception must not pass through the resolver's C code.
      pending.result = {};
      pending.result.end = LookupEnd::kAbandoned;
    }
  }
}

/// Waits once for the resolver's sockets, its timers or the peer of `watched`.
/// @return false if that peer is gone
bool waitOnce(ares_channel channel, Deadline deadline, int watched) {
  std::array<ares_socket_t, ARES_GETSOCK_MAXNUM> sockets{};
  const auto bits = static_cast<unsigned>(
      ares_getsock(channel, sockets.data(), static_cast<int>(sockets.size())));
  std::array<pollfd, ARES_GETSOCK_MAXNUM + 1> entries{};
  nfds_t count = 0;
  entries[count++] = {watched, 0, 0};  // no events are needed: poll() always reports POLLHUP
  for (unsigned i = 0; i < sockets.size(); ++i) {
    const bool read = ((bits >> i) & 1U) != 0;
    const bool write = ((bits >> (i + ARES_GETSOCK_MAXNUM)) & 1U) != 0;
    if (!read && !write) continue;
    const auto events = static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0));
    entries[count++] = {sockets[i], events, 0};
  }
  const auto left = std::max(
      std::chrono::ceil<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now()),
      std::chrono::microseconds::zero());
  // The time left is a few seconds at most, so it also fits in a time_t of 32 bits.
  timeval longest{static_cast<std::time_t>(left.count() / 1'000'000),
                  static_cast<suseconds_t>(left.count() % 1'000'000)};
  timeval chosen{};
  const timeval* wait = ares_timeout(channel, &longest, &chosen);
  const auto ms = static_cast<int>(wait->tv_sec * 1000 + (wait->tv_usec + 999) / 1000);
  if (poll(entries.data(), count, ms) < 0 && errno != EINTR) return false;
  if (entries[0].revents != 0) return false;
  for (nfds_t i = 1; i < count; ++i) {
    const auto& entry = entries[i];
    const bool readable = (entry.revents & (POLLIN | POLLERR | POLLHUP)) != 0;
    const bool writable = (entry.revents & (POLLOUT | POLLERR | POLLHUP)) != 0;
    ares_process_fd(channel, readable ? entry.fd : ARES_SOCKET_BAD,
                    writable ? entry.fd : ARES_SOCKET_BAD);
  }
  // Runs the timers even if no socket has data.
  ares_process_fd(channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  return true;
}

}  // namespace

struct DnsResolver::Resolver {
  explicit Resolver(const std::string& servers) {
    ares_options options{};
    options.timeout = kTryMs;
    options.tries = kTries;
    int status = ares_init_options(&channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES);
    if (status == ARES_SUCCESS && !servers.empty()) {
      status = ares_set_servers_ports_csv(channel, servers.c_str());
    }
    if (status == ARES_SUCCESS) return;
    logLine(LOG_ERR, "pac_engine: no name lookups: %s", ares_strerror(status));
    if (channel != nullptr) ares_destroy(channel);
    channel = nullptr;
  }
  ~Resolver() {
    if (channel != nullptr) ares_destroy(channel);
  }
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  ares_channel channel = nullptr;
};

DnsResolver::DnsResolver(std::string servers) : mServers(std::move(servers)) {}
DnsResolver::~DnsResolver() = default;

bool DnsResolver::configurationChanged() {
  const bool changed = mConfiguration.changedSinceLastLook();
  if (changed) mResolver.reset();
  return changed;
}

LookupResult DnsResolver::lookUp(const std::string& name, pac_engine::AddressFamily family,
                                 Deadline deadline, int watched) {
  if (!mResolver) mResolver = std::make_unique<Resolver>(mServers);
  ares_channel channel = mResolver->channel;
  if (channel == nullptr) {
    mResolver.reset();
    return {LookupEnd::kAbandoned, {}, {}};
  }
  ares_addrinfo_hints hints{};
  hints.ai_family = family == pac_engine::AddressFamily::kAny ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  Pending pending;
  ares_getaddrinfo(channel, name.c_str(), nullptr, &hints, &onAnswer, &pending);
  bool asked = true;
  while (!pending.done && asked && std::chrono::steady_clock::now() < deadline) {
    asked = waitOnce(channel, deadline, watched);
  }
  // ares_cancel() runs all remaining callbacks, so that none uses `pending` after this function
  // returns.
  if (!pending.done) {
    ares_cancel(channel);
    // If only one of the two families has its answer, the lookup counts as too late.
    pending.result = {};
    pending.result.end = LookupEnd::kTooLate;
  }
  if (!asked) pending.result.end = LookupEnd::kAbandoned;
  return std::move(pending.result);
}

}  // namespace pac_engine
