// Answers for URLs, as the commands give them to programs.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/ctl/daemon/daemon_bus.h"
#include "client/library/proxy_answer.h"

namespace client {

struct AnswerOptions {
  /// The daemon is asked about this machine, too (domain/local_host.h).
  bool askLocal = false;
  /// The user name and the password of the configuration come into a manual proxy's URL, if this
  /// user may read the configuration and the URL has none of its own.
  bool withCredentials = false;
  /// And into a script's answer, for proxies of these hosts: a script could name any host.
  std::vector<std::string> credentialHosts;
};

class Answers {
 public:
  /// @param limit of each call
  Answers(std::chrono::microseconds limit, AnswerOptions options)
      : mLimit(limit), mOptions(std::move(options)) {}

  /// The answer for `url`, of which the canonical form is asked about. The bus is connected when it
  /// is first needed. Throws Failure.
  ProxyAnswer ask(const std::string& url);

 private:
  DaemonBus& bus();
  void addCredentialsTo(ProxyAnswer& answer);

  std::chrono::microseconds mLimit;
  AnswerOptions mOptions;
  std::optional<DaemonBus> mBus;
  std::optional<Configuration> mConfiguration;  ///< empty texts if it may not be read
};

}  // namespace client
