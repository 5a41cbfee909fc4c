// Proxies that failed. As in browsers, they are tried last for some minutes.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "relay/entry.h"

namespace relay {

/// Most proxies with a penalty. If there are more, the penalty with the earliest end is dropped.
inline constexpr std::size_t kMaxPenalties = 256;

class Penalties {
 public:
  using Clock = std::chrono::steady_clock;
  struct Penalty {
    Clock::time_point end;
    std::string reason;  ///< for people
  };

  explicit Penalties(std::chrono::seconds time) : mTime(time) {}

  /// The proxy `entry` failed. DIRECT never has a penalty.
  void add(const Entry& entry, std::string reason, Clock::time_point now = Clock::now());

  /// Puts the entries in penalty behind the others; both keep their order.
  void order(std::vector<Entry>& entries, Clock::time_point now = Clock::now());

  /// Those in penalty, by the name of the entry.
  const std::map<std::string, Penalty>& list(Clock::time_point now = Clock::now());

 private:
  void forget(Clock::time_point now);

  const std::chrono::seconds mTime;
  std::map<std::string, Penalty> mList;
};

}  // namespace relay
