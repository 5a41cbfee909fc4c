#include "engine/worker/broker_environment.h"

#include <cstdlib>
#include <utility>

#include "base/utf8.h"
#include "engine/worker/worker_end.h"

namespace pac_worker {

using pac_engine::FromLibrary;
using pac_engine::FromWorker;

namespace {

/// More than an evaluation usually needs: it may look up 20 names, each in two families.
constexpr std::size_t kMaxRemembered = 64;

}  // namespace

void sendOrEnd(pac_engine::Channel& channel, const FromWorker& message) {
  if (!channel.sendPatiently(pac_engine::encode(message))) endWorker(EXIT_SUCCESS);
}

FromLibrary receiveOrEnd(pac_engine::Channel& channel) {
  if (channel.receive() != pac_engine::Receipt::kMessage) endWorker(EXIT_SUCCESS);
  auto message = pac_engine::decodeFromLibrary(channel.message());
  if (!message) endWorker(kExitBroken);
  return *std::move(message);
}

BrokerEnvironment::Texts BrokerEnvironment::ask(const FromWorker& question) {
  sendOrEnd(mChannel, question);
  auto answer = receiveOrEnd(mChannel);
  auto* const addresses = std::get_if<pac_engine::Addresses>(&answer);
  if (addresses == nullptr) endWorker(kExitBroken);
  return std::move(addresses->texts);
}

void BrokerEnvironment::begin() {
  mResolved.clear();
  mOwn.clear();
}

std::vector<std::string> BrokerEnvironment::resolve(std::string_view name, AddressFamily family) {
  // No name is longer than kMaxNameBytes.
  if (name.empty() || name.size() > pac_engine::kMaxNameBytes) return {};
  std::pair key(family, std::string(name));
  const auto known = mResolved.find(key);
  if (known != mResolved.end()) return known->second;
  auto addresses = ask(pac_engine::Resolve{family, name});
  if (mResolved.size() < kMaxRemembered) mResolved.emplace(std::move(key), addresses);
  return addresses;
}

std::vector<std::string> BrokerEnvironment::ownAddresses(AddressFamily family) {
  const auto known = mOwn.find(family);
  if (known != mOwn.end()) return known->second;
  return mOwn[family] = ask(pac_engine::OwnAddresses{family});
}

void BrokerEnvironment::alert(std::string_view text) {
  // The library itself limits how much one evaluation logs.
  sendOrEnd(mChannel, pac_engine::Alert{base::utf8Head(text, pac_engine::kMaxAlertBytes)});
}

}  // namespace pac_worker
