#include "platform/pac_engine/worker/broker_environment.h"

#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace pac_worker {

using pac_engine::FromLibrary;
using pac_engine::FromWorker;

void sendOrEnd(pac_engine::Channel& channel, const FromWorker& message) {
  if (!channel.send(pac_engine::encode(message))) _exit(EXIT_SUCCESS);
}

FromLibrary receiveOrEnd(pac_engine::Channel& channel) {
  if (channel.receive() != pac_engine::Receipt::kMessage) _exit(EXIT_SUCCESS);
  auto message = pac_engine::decodeFromLibrary(channel.message());
  if (!message) _exit(kExitBroken);
  return *std::move(message);
}

std::vector<std::string> BrokerEnvironment::ask(const FromWorker& question) {
  sendOrEnd(mChannel, question);
  auto answer = receiveOrEnd(mChannel);
  auto* const addresses = std::get_if<pac_engine::Addresses>(&answer);
  if (addresses == nullptr) _exit(kExitBroken);
  return std::move(addresses->texts);
}

std::vector<std::string> BrokerEnvironment::resolve(std::string_view name, AddressFamily family) {
  // Longer than the encoding of any name.
  if (name.empty() || name.size() > pac_engine::kMaxNameBytes) return {};
  return ask(pac_engine::Resolve{family, name});
}

std::vector<std::string> BrokerEnvironment::ownAddresses(AddressFamily family) {
  return ask(pac_engine::OwnAddresses{family});
}

std::int64_t BrokerEnvironment::now() {
  timespec time{};
  if (!mStopped) clock_gettime(CLOCK_REALTIME, &time);
  return mStopped.value_or(time.tv_sec);
}

std::tm BrokerEnvironment::brokenDown(std::int64_t when, bool gmt) {
  const std::time_t time = when;
  std::tm fields{};
  // Years that an int cannot hold leave the fields empty.
  if ((gmt ? gmtime_r(&time, &fields) : localtime_r(&time, &fields)) == nullptr) fields = {};
  return fields;
}

void BrokerEnvironment::alert(std::string_view text) {
  if (mAlertBytesLeft == 0) return;
  const auto cut = pac_engine::cutText(text, mAlertBytesLeft);
  sendOrEnd(mChannel, pac_engine::Alert{cut});
  // One more for each line, so that empty ones end too.
  const bool whole = cut.size() == text.size() && cut.size() < mAlertBytesLeft;
  mAlertBytesLeft = whole ? mAlertBytesLeft - cut.size() - 1 : 0;
}

}  // namespace pac_worker
