#include "client/ctl/daemon/answers.h"

#include <algorithm>

#include "client/ctl/failure.h"
#include "client/library/asked_url.h"
#include "domain/local_host.h"

namespace client {

ProxyAnswer Answers::ask(const std::string& url) {
  const auto asked = askedUrl(url);
  if (!asked) throw Failure(kUsage, "a URL is no URL, or longer than 65535 bytes");
  if (!mOptions.askLocal && domain::isLocalUrl(*asked)) return localAnswer();
  auto answer = bus().ask(*asked);
  if (mOptions.withCredentials) addCredentialsTo(answer);
  return answer;
}

DaemonBus& Answers::bus() {
  if (!mBus) mBus.emplace(mLimit);
  return *mBus;
}

void Answers::addCredentialsTo(ProxyAnswer& answer) {
  const auto mayHave = [&](const ProxyEntry& entry) {
    return takesCredentials(answer, entry, mOptions.credentialHosts);
  };
  if (std::none_of(answer.entries.begin(), answer.entries.end(), mayHave)) return;
  if (!mConfiguration) {
    try {
      mConfiguration = bus().configuration();
    } catch (const Failure& failure) {
      if (failure.status() != kDenied) throw;
      mConfiguration.emplace();
    }
  }
  if (mConfiguration->userName.empty()) return;
  const auto credentials = credentialsOf(mConfiguration->userName, mConfiguration->password);
  for (auto& entry : answer.entries) {
    if (mayHave(entry)) entry.credentials = credentials;
  }
}

}  // namespace client
