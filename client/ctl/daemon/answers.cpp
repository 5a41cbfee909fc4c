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
  for (int attempt = 1;; ++attempt) {
    auto answer = bus().ask(*asked);
    if (!wantsCredentials(answer)) return answer;
    const auto read = configuration();
    if (!read || addCredentials(answer, *read, mOptions.credentialHosts)) return answer;
    if (attempt == kMaxAttempts) return answer;
  }
}

DaemonBus& Answers::bus() {
  if (!mBus) mBus.emplace(mLimit);
  return *mBus;
}

bool Answers::wantsCredentials(const ProxyAnswer& answer) const {
  return mOptions.withCredentials &&
         std::any_of(answer.entries.begin(), answer.entries.end(), [&](const ProxyEntry& entry) {
           return takesCredentials(answer, entry, mOptions.credentialHosts);
         });
}

/// @return the daemon's configuration; nothing if this user may not read it
std::optional<Configuration> Answers::configuration() {
  try {
    return bus().configuration();
  } catch (const Failure& failure) {
    if (failure.status() != kDenied) throw;
    return std::nullopt;
  }
}

}  // namespace client
