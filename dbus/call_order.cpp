#include "dbus/call_order.h"

#include <algorithm>
#include <utility>

namespace {

std::size_t indexOf(CallOrder::Kind kind) {
  return static_cast<std::size_t>(kind);
}

}  // namespace

bool CallOrder::hasRoom(const std::string& sender, Kind kind) const {
  const auto found = mConnections.find(sender);
  if (found == mConnections.end()) return true;
  const auto& connection = found->second;
  if (kind == Kind::kPlain) return connection.calls.size() < kMaxOfConnection;
  return connection.questions < kMaxOfConnection &&
         mUsers.at(connection.user).questions < kMaxOfUser;
}

CallOrder::Connection& CallOrder::connectionOf(const std::string& sender) {
  const auto [found, isNew] = mConnections.try_emplace(sender);
  auto& connection = found->second;
  if (isNew) {
    ++mTurn;
    ++mUnnamed;
    connection.user = sender;
    connection.lastTurn = {mTurn, mTurn};
    auto& user = mUsers[sender];
    user.lastTurn = connection.lastTurn;
    user.connections = 1;
  }
  return connection;
}

void CallOrder::noteServed(const std::string& sender, Kind kind) {
  connectionOf(sender);
  mLastServed = sender;
  mLastKind = kind;
}

void CallOrder::add(const std::string& sender, Kind kind, DBus::CallMessage call) {
  auto& connection = connectionOf(sender);
  connection.calls.push_back({kind, std::move(call)});
  if (kind == Kind::kQuestion) {
    ++connection.questions;
    ++mUsers.at(connection.user).questions;
  }
  ++mOfKind[indexOf(kind)];
  ++mWaiting;
}

std::vector<std::string> CallOrder::takeUnknown() {
  std::vector<std::string> names;
  if (std::exchange(mUnnamed, 0) == 0) return names;
  for (auto& [name, connection] : mConnections) {
    if (!std::exchange(connection.isNamed, true)) names.push_back(name);
  }
  return names;
}

// First chooses a user: of all users with a waiting call of this kind, the one that was served
// longest ago. Then chooses a connection of that user in the same way.
CallOrder::Connections::iterator CallOrder::first(Kind kind, bool onlyPrivileged) {
  auto best = mConnections.end();
  std::pair<std::uint64_t, std::uint64_t> bestTurn;
  for (auto it = mConnections.begin(); it != mConnections.end(); ++it) {
    const auto& connection = it->second;
    if (connection.calls.empty() || connection.calls.front().kind != kind) continue;
    const auto& user = mUsers.at(connection.user);
    if (onlyPrivileged && !user.goesFirst) continue;
    if (mOnlyModest && user.isRefused) continue;
    const std::pair turn(user.lastTurn[indexOf(kind)], connection.lastTurn[indexOf(kind)]);
    if (best != mConnections.end() && bestTurn <= turn) continue;
    best = it;
    bestTurn = turn;
  }
  return best;
}

CallOrder::Connections::iterator CallOrder::choose() {
  auto chosen = mConnections.end();
  const auto none = mConnections.end();
  if (mPlainServed >= kPlainInARow) chosen = first(Kind::kQuestion, false);
  if (chosen == none && mOfKind[indexOf(Kind::kPlain)] > 0) {
    chosen = first(Kind::kPlain, true);
    if (chosen == none) chosen = first(Kind::kPlain, false);
  }
  if (chosen == none) chosen = first(Kind::kQuestion, false);
  return chosen;
}

// Puts the connection that was served last behind the other connections. This happens at the next
// choice, not when the call is served. So a connection that arrives before that choice comes before
// the connection that was served.
void CallOrder::standBehind() {
  const auto found = mConnections.find(std::exchange(mLastServed, {}));
  if (found == mConnections.end()) return;
  ++mTurn;
  found->second.lastTurn[indexOf(mLastKind)] = mTurn;
  mUsers.at(found->second.user).lastTurn[indexOf(mLastKind)] = mTurn;
}

void CallOrder::noteRefused(const std::string& sender) {
  const auto found = mConnections.find(sender);
  if (found != mConnections.end()) mUsers.at(found->second.user).isRefused = true;
}

void CallOrder::forgetRefused() {
  for (auto& [name, user] : mUsers) user.isRefused = false;
}

bool CallOrder::modestWaits() const {
  return std::any_of(mConnections.begin(), mConnections.end(), [this](const auto& entry) {
    return !entry.second.calls.empty() && !mUsers.at(entry.second.user).isRefused;
  });
}

std::optional<DBus::CallMessage> CallOrder::nextOfModest() {
  if (!modestWaits()) return std::nullopt;
  mOnlyModest = true;
  auto call = take();
  mOnlyModest = false;
  return call;
}

std::optional<DBus::CallMessage> CallOrder::next() {
  if (mWaiting == 0) return std::nullopt;
  return take();
}

std::optional<DBus::CallMessage> CallOrder::take() {
  standBehind();
  const auto chosen = choose();
  auto& connection = chosen->second;
  std::optional<DBus::CallMessage> call(connection.calls.front().call);
  mLastKind = connection.calls.front().kind;
  mLastServed = chosen->first;
  connection.calls.pop_front();
  --mWaiting;
  --mOfKind[indexOf(mLastKind)];
  if (mLastKind == Kind::kQuestion) {
    --connection.questions;
    --mUsers.at(connection.user).questions;
    mPlainServed = 0;
  } else {
    ++mPlainServed;
  }
  // The end of a connection is watched only if the bus was asked for its user. If the bus was not
  // asked, nothing reports the end. Therefore such a connection is erased here when none of its
  // calls waits.
  if (connection.calls.empty() && !connection.isNamed) erase(chosen);
  return call;
}

std::vector<DBus::CallMessage> CallOrder::setUser(const std::string& sender, unsigned long number) {
  std::vector<DBus::CallMessage> excess;
  const auto found = mConnections.find(sender);
  const auto key = std::to_string(number);
  if (found == mConnections.end() || found->second.user == key) return excess;
  auto& connection = found->second;
  const auto [known, isNew] = mUsers.try_emplace(key);
  auto& user = known->second;
  if (isNew) {
    user.lastTurn = mUsers.at(connection.user).lastTurn;
    user.goesFirst = number == 0 || number == mOwnUser;
  }
  const bool wasRefused = mUsers.at(connection.user).isRefused;
  leaveUser(connection);
  connection.user = key;
  ++user.connections;
  user.questions += connection.questions;
  user.isRefused = user.isRefused || wasRefused;
  while (user.questions > kMaxOfUser && !connection.calls.empty() &&
         connection.calls.back().kind == Kind::kQuestion) {
    excess.push_back(connection.calls.back().call);
    connection.calls.pop_back();
    --connection.questions;
    --user.questions;
    --mOfKind[indexOf(Kind::kQuestion)];
    --mWaiting;
  }
  return excess;
}

void CallOrder::leaveUser(const Connection& connection) {
  const auto user = mUsers.find(connection.user);
  user->second.questions -= connection.questions;
  if (--user->second.connections == 0) mUsers.erase(user);
}

void CallOrder::drop(const std::string& sender) {
  const auto found = mConnections.find(sender);
  if (found == mConnections.end()) return;
  for (const auto& waiting : found->second.calls) --mOfKind[indexOf(waiting.kind)];
  mWaiting -= found->second.calls.size();
  erase(found);
}

void CallOrder::erase(Connections::iterator connection) {
  if (!connection->second.isNamed) --mUnnamed;
  leaveUser(connection->second);
  mConnections.erase(connection);
}

void CallOrder::forget() {
  mConnections.clear();
  mUsers.clear();
  mLastServed.clear();
  mUnnamed = 0;
}
