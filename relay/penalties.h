// Proxies that failed, which are tried last for some minutes, as browsers do it.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "relay/entry.h"

namespace relay {

/// Most proxies that are remembered; the one whose penalty ends first makes room.
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
