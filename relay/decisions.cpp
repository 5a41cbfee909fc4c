#include "relay/decisions.h"

#include <algorithm>

namespace relay {

void Decisions::add(Decision decision) {
  if (decision.user == static_cast<uid_t>(-1)) return;
  auto& list = mOfUsers[decision.user];
  list.push_front(std::move(decision));
  if (list.size() > kDecisionsOfUser) list.pop_back();
  if (mOfUsers.size() <= kUsersWithDecisions) return;
  mOfUsers.erase(std::min_element(
      mOfUsers.begin(), mOfUsers.end(),
      [](const auto& a, const auto& b) { return a.second.front().time < b.second.front().time; }));
}

std::vector<Decision> Decisions::of(uid_t user) const {
  std::vector<Decision> list;
  for (const auto& [owner, decisions] : mOfUsers) {
    if (user == 0 || user == owner) list.insert(list.end(), decisions.begin(), decisions.end());
  }
  std::stable_sort(list.begin(), list.end(),
                   [](const Decision& a, const Decision& b) { return a.time > b.time; });
  if (list.size() > kDecisionsOfUser) list.resize(kDecisionsOfUser);
  return list;
}

}  // namespace relay
