// The daemon's answers, asked for through libproxymanager-client, with failures told as those of
// the commands that speak to the bus themselves.
#pragma once

#include <chrono>
#include <proxymanager/client.hpp>
#include <string>

#include "client/library/proxy_answer.h"

namespace client {

class DaemonAnswers {
 public:
  /// @param limit of each answer, the connecting included
  explicit DaemonAnswers(std::chrono::microseconds limit) : mLimit(limit) {}

  /// The answer for `url`; throws Failure where there is none.
  ProxyAnswer ask(const std::string& url) const;

 private:
  std::chrono::microseconds mLimit;
  proxymanager::Client mClient;
};

}  // namespace client
