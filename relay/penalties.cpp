#include "relay/penalties.h"

#include <algorithm>

namespace relay {

namespace {

/// If `map` has more than `most` penalties or doubts, drops the penalty or doubt that ends first.
template <typename Map>
void dropFirst(Map& map, std::size_t most) {
  if (map.size() <= most) return;
  map.erase(std::min_element(map.begin(), map.end(), [](const auto& a, const auto& b) {
    return a.second.end < b.second.end;
  }));
}

}  // namespace

void Penalties::forget(Clock::time_point now) {
  std::erase_if(mList, [&](const auto& one) { return one.second.end <= now; });
  std::erase_if(mDoubts, [&](const auto& one) { return one.second.end <= now; });
}

void Penalties::add(const Entry& entry, std::string reason, Clock::time_point now) {
  if (entry.isDirect()) return;
  forget(now);
  mList[entry.name()] = {now + mTime, std::move(reason)};
  dropFirst(mList, kMaxPenalties);
}

void Penalties::doubt(const Entry& entry, const std::string& destination, std::string reason,
                      Clock::time_point now) {
  if (entry.isDirect()) return;
  forget(now);
  const auto name = entry.name();
  const bool isSecond = std::any_of(mDoubts.begin(), mDoubts.end(), [&](const auto& one) {
    return one.first.first == name && one.first.second != destination && one.second.isLast;
  });
  mDoubts[{name, destination}] = {now + mTime, true};
  dropFirst(mDoubts, kMaxDoubts);
  if (isSecond) add(entry, std::move(reason), now);
}

void Penalties::answered(const Entry& entry) {
  if (mDoubts.empty()) return;
  const auto name = entry.name();
  for (auto& [key, doubt] : mDoubts) {
    if (key.first == name) doubt.isLast = false;
  }
}

void Penalties::order(std::vector<Entry>& entries, const std::string& destination,
                      Clock::time_point now) {
  if (mList.empty() && mDoubts.empty()) return;
  forget(now);
  std::stable_partition(entries.begin(), entries.end(), [&](const Entry& entry) {
    return entry.isDirect() ||
           (!mList.contains(entry.name()) && !mDoubts.contains({entry.name(), destination}));
  });
}

const std::map<std::string, Penalties::Penalty>& Penalties::list(Clock::time_point now) {
  forget(now);
  return mList;
}

}  // namespace relay
