#include "relay/names.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>

namespace relay {

namespace {

Protocol::endpoint withPort(Protocol::endpoint endpoint, std::uint16_t port) {
  auto* const address = endpoint.data();
  if (address->sa_family == AF_INET) {
    reinterpret_cast<sockaddr_in*>(address)->sin_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in6*>(address)->sin6_port = htons(port);
  }
  return endpoint;
}

/// Puts IPv6 and IPv4 addresses in alternating order. The family of the first address comes first
/// (RFC 8305, section 4).
void interleave(std::vector<Protocol::endpoint>& list) {
  if (list.empty()) return;
  const auto family = list.front().data()->sa_family;
  std::vector<Protocol::endpoint> first;
  std::vector<Protocol::endpoint> second;
  for (const auto& one : list) (one.data()->sa_family == family ? first : second).push_back(one);
  list.clear();
  for (std::size_t index = 0; index < std::max(first.size(), second.size()); index++) {
    if (index < first.size()) list.push_back(first[index]);
    if (index < second.size()) list.push_back(second[index]);
  }
  if (list.size() > kMaxAddresses) list.resize(kMaxAddresses);
}

Addresses ask(const std::string& host) {
  Addresses addresses;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (result != 0) {
    addresses.problem = gai_strerror(result);
    return addresses;
  }
  for (const auto* one = found; one != nullptr; one = one->ai_next) {
    if (one->ai_family != AF_INET && one->ai_family != AF_INET6) continue;
    addresses.list.emplace_back(one->ai_addr, one->ai_addrlen);
  }
  freeaddrinfo(found);
  interleave(addresses.list);
  if (addresses.list.empty()) addresses.problem = "no address";
  return addresses;
}

}  // namespace

bool readAddress(const std::string& text, std::uint16_t port, Protocol::endpoint& endpoint) {
  sockaddr_in four{};
  sockaddr_in6 six{};
  if (inet_pton(AF_INET, text.c_str(), &four.sin_addr) == 1) {
    four.sin_family = AF_INET;
    endpoint = withPort(Protocol::endpoint(&four, sizeof(four)), port);
    return true;
  }
  if (inet_pton(AF_INET6, text.c_str(), &six.sin6_addr) != 1) return false;
  six.sin6_family = AF_INET6;
  endpoint = withPort(Protocol::endpoint(&six, sizeof(six)), port);
  return true;
}

std::string addressText(const Protocol::endpoint& endpoint) {
  char text[INET6_ADDRSTRLEN] = "";
  const auto* const address = endpoint.data();
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
              sizeof(text));
  } else if (address->sa_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
              sizeof(text));
  }
  return text;
}

Task<Addresses> Names::lookUp(std::string host, std::uint16_t port, Clock::duration limit,
                              uid_t user) {
  Addresses addresses;
  if (Protocol::endpoint literal; readAddress(host, port, literal)) {
    addresses.list.push_back(literal);
    co_return addresses;
  }
  auto& waiting = mOfUsers[user].waiting;
  // If no request waits for a lookup any more, the lookup leaves the queue and is not started.
  std::erase_if(waiting, [](const auto& one) { return one->isStarted || one->waiting.empty(); });
  const auto found = mLookups.find(host);
  const auto lookup = found != mLookups.end() ? found->second : std::make_shared<Lookup>();
  const bool isQueued = std::find(waiting.begin(), waiting.end(), lookup) != waiting.end();
  if (!lookup->isStarted && !isQueued) {
    if (waiting.size() >= kMaxWaitingLookups) {
      addresses.problem = "too many lookups";
      addresses.wasAsked = false;
      co_return addresses;
    }
    // The lookup may also be in the queue of another user. It starts at the first turn of either
    // user.
    waiting.push_back(lookup);
  }
  if (found == mLookups.end()) {
    lookup->host = host;
    mLookups.emplace(std::move(host), lookup);
  }
  addresses = co_await wait(lookup, port, limit);
  co_return addresses;
}

Task<Addresses> Names::wait(const LookupPtr& lookup, std::uint16_t port, Clock::duration limit) {
  Event done(mLoop);
  lookup->waiting.push_back(&done);
  startMore();
  if (!lookup->isDone) co_await done.wait(limit);
  std::erase(lookup->waiting, &done);
  if (!lookup->isStarted && lookup->waiting.empty()) mLookups.erase(lookup->host);
  Addresses addresses;
  if (!lookup->isDone) {
    addresses.wasAsked = lookup->isStarted;
    addresses.problem = lookup->isStarted ? "the name server does not answer"
                                          : "too many lookups for a lookup in time";
    co_return addresses;
  }
  addresses = lookup->addresses;
  for (auto& address : addresses.list) address = withPort(address, port);
  co_return addresses;
}

/// Removes the first lookup from the queue of the user whose turn it is. @return this lookup; null
/// if no lookup may start
Names::LookupPtr Names::next() {
  auto user = mOfUsers.upper_bound(mLastUser);
  for (std::size_t left = mOfUsers.size(); left != 0; left--) {
    if (user == mOfUsers.end()) user = mOfUsers.begin();
    auto& [number, lookups] = *user;
    while (!lookups.waiting.empty() && lookups.running < kMaxLookupsOfUser) {
      const auto lookup = lookups.waiting.front();
      lookups.waiting.pop_front();
      if (lookup->isStarted || lookup->waiting.empty()) continue;
      mLastUser = lookup->user = number;
      return lookup;
    }
    const bool isIdle = lookups.waiting.empty() && lookups.running == 0;
    user = isIdle ? mOfUsers.erase(user) : std::next(user);
  }
  return nullptr;
}

void Names::startMore() {
  while (mRunning < kMaxLookups) {
    const auto lookup = next();
    if (lookup == nullptr) return;
    start(lookup);
  }
}

void Names::start(const LookupPtr& lookup) {
  lookup->isStarted = true;
  // All signals are blocked in the new thread, because only the main thread may receive signals.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([this, lookup] {
      pthread_setname_np(pthread_self(), "pm-lookup");
      auto addresses = ask(lookup->host);
      asio::post(mLoop, [this, lookup, addresses = std::move(addresses)]() mutable {
        mRunning--;
        mOfUsers[lookup->user].running--;
        end(lookup, std::move(addresses));
        startMore();
      });
    }).detach();
    mRunning++;
    mOfUsers[lookup->user].running++;
  } catch (const std::system_error&) {
    end(lookup, {{}, "no thread for a lookup", false});
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Names::end(const LookupPtr& lookup, Addresses addresses) {
  lookup->addresses = std::move(addresses);
  lookup->isDone = true;
  mLookups.erase(lookup->host);
  for (auto* const event : lookup->waiting) event->happen();
}

}  // namespace relay
