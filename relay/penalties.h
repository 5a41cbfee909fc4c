// Proxies that have failed. The relay tries them last for some minutes, as browsers do.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "relay/entry.h"

namespace relay {

/// Maximum number of proxies with a penalty. Above this number, the relay drops the penalty that
/// ends first.
inline constexpr std::size_t kMaxPenalties = 256;

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

  /// Moves the entries with a penalty behind the others. Both groups keep their order.
  void order(std::vector<Entry>& entries, Clock::time_point now = Clock::now());

  /// The current penalties, by the name of the entry.
  const std::map<std::string, Penalty>& list(Clock::time_point now = Clock::now());

 private:
  void forget(Clock::time_point now);

  const std::chrono::seconds mTime;
  std::map<std::string, Penalty> mList;
};

}  // namespace relay
