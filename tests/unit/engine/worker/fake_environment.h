// An environment that a test controls: clock, zone, names and addresses. The environment also
// records alerts.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/worker/pac_environment.h"

namespace pac_worker {

class FakeEnvironment : public PacEnvironment {
 public:
  std::map<std::string, std::vector<std::string>, std::less<>> names4;
  std::map<std::string, std::vector<std::string>, std::less<>> namesAny;
  std::vector<std::string> own4;
  std::vector<std::string> ownAny;
  std::optional<std::int64_t> clock;  ///< set before a script is loaded
  std::function<void()> onResolve = [] {};
  std::vector<std::string> asked;
  std::vector<std::string> alerts;

  std::vector<std::string> resolve(std::string_view name, AddressFamily family) override {
    asked.emplace_back(name);
    onResolve();
    const auto& names = family == AddressFamily::kIpv4 ? names4 : namesAny;
    const auto found = names.find(name);
    return found == names.end() ? std::vector<std::string>() : found->second;
  }
  std::vector<std::string> ownAddresses(AddressFamily family) override {
    return family == AddressFamily::kIpv4 ? own4 : ownAny;
  }
  std::optional<std::int64_t> stoppedClock() override { return clock; }
  void alert(std::string_view text) override { alerts.emplace_back(text); }

  /// Sets the clock to this time in the zone of the process.
  void setLocal(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    clock = std::mktime(&parts);
  }
};

}  // namespace pac_worker
