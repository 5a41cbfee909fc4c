// Proxies that have failed. The relay tries them last for some minutes, as browsers do.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "relay/entry.h"

namespace relay {

/// Maximum number of proxies with a penalty. Above this number, the relay drops the penalty that
/// ends first.
inline constexpr std::size_t kMaxPenalties = 256;
/// Maximum number of doubts (see Penalties::doubt()). Above this number, the relay drops the doubt
/// that ends first.
inline constexpr std::size_t kMaxDoubts = 256;

class Penalties {
 public:
  using Clock = std::chrono::steady_clock;
  struct Penalty {
    Clock::time_point end;
    std::string reason;  ///< for people
  };

  explicit Penalties(std::chrono::seconds time) : mTime(time) {}

  /// Adds a penalty for the proxy `entry`. DIRECT never gets a penalty.
  void add(const Entry& entry, std::string reason, Clock::time_point now = Clock::now());

  /// Reports that the proxy `entry` accepted a connection for `destination`, and then was slow or
  /// closed it without an answer. The destination may be the cause, so only requests for this
  /// destination try the proxy last. If this happens for two destinations, and the proxy has
  /// answered nothing in between, the proxy gets a penalty.
  void doubt(const Entry& entry, const std::string& destination, std::string reason,
             Clock::time_point now = Clock::now());
  /// Reports that the proxy `entry` has answered.
  void answered(const Entry& entry);

  /// Moves the entries with a penalty, or with a doubt for `destination`, to the end of the list.
  /// Both groups keep their order.
  void order(std::vector<Entry>& entries, const std::string& destination,
             Clock::time_point now = Clock::now());

  /// The current penalties, by the name of the entry.
  const std::map<std::string, Penalty>& list(Clock::time_point now = Clock::now());

 private:
  struct Doubt {
    Clock::time_point end;
    bool isLast = true;  ///< the proxy has answered nothing since this doubt
  };

  void forget(Clock::time_point now);

  const std::chrono::seconds mTime;
  std::map<std::string, Penalty> mList;
  std::map<std::pair<std::string, std::string>, Doubt> mDoubts;  ///< by entry and destination
};

}  // namespace relay
