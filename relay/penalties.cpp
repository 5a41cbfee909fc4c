#include "relay/penalties.h"

#include <algorithm>

namespace relay {

void Penalties::forget(Clock::time_point now) {
  std::erase_if(mList, [&](const auto& one) { return one.second.end <= now; });
}

void Penalties::add(const Entry& entry, std::string reason, Clock::time_point now) {
  if (entry.isDirect()) return;
  forget(now);
  mList[entry.name()] = {now + mTime, std::move(reason)};
  if (mList.size() <= kMaxPenalties) return;
  mList.erase(std::min_element(mList.begin(), mList.end(), [](const auto& a, const auto& b) {
    return a.second.end < b.second.end;
  }));
}

void Penalties::order(std::vector<Entry>& entries, Clock::time_point now) {
  if (mList.empty()) return;
  forget(now);
  std::stable_partition(entries.begin(), entries.end(), [&](const Entry& entry) {
    return entry.isDirect() || !mList.contains(entry.name());
  });
}

const std::map<std::string, Penalties::Penalty>& Penalties::list(Clock::time_point now) {
  forget(now);
  return mList;
}

}  // namespace relay
