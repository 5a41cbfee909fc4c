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
  /// Ask the daemon about this machine, too (domain/local_host.h).
  bool askLocal = false;
  /// Whether the configured user name and password are added to a manual proxy's URL. This needs a
  /// user who may read the configuration, and a URL without a user name.
  bool withCredentials = false;
  /// Put them also into a script's answer, but only for proxies on these hosts: a script could name
  /// any host.
  std::vector<std::string> credentialHosts;
};

class Answers {
 public:
  /// @param limit of each call
  Answers(std::chrono::microseconds limit, AnswerOptions options)
      : mLimit(limit), mOptions(std::move(options)) {}

  /// The answer for `url`. The question contains the canonical form of `url`. Connects to the bus
  /// when this is first needed. Throws Failure.
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
