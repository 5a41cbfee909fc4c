// Answers for URLs in the form that the commands pass to programs.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/ctl/daemon/daemon_bus.h"
#include "client/library/proxy_answer.h"

namespace client {

struct AnswerOptions {
  /// Whether the daemon is also asked about URLs of this machine (domain/local_host.h).
  bool askLocal = false;
  /// Whether the configured user name and password are added to a manual proxy's URL that has no
  /// user name. This works only if the user may read the configuration.
  bool withCredentials = false;
  /// If a proxy in a script's answer has one of these hosts, the credentials are added to its URL,
  /// too. A script could name any host, so other hosts do not get the credentials.
  std::vector<std::string> credentialHosts;
};

class Answers {
 public:
  /// @param limit the time limit of each call
  Answers(std::chrono::microseconds limit, AnswerOptions options)
      : mLimit(limit), mOptions(std::move(options)) {}

  /// The answer for `url`. The question contains the canonical form of `url`. The function connects
  /// to the bus when it first needs the bus. Throws Failure.
  ProxyAnswer ask(const std::string& url);

 private:
  DaemonBus& bus();
  bool wantsCredentials(const ProxyAnswer& answer) const;
  std::optional<Configuration> configuration();

  std::chrono::microseconds mLimit;
  AnswerOptions mOptions;
  std::optional<DaemonBus> mBus;
};

}  // namespace client
