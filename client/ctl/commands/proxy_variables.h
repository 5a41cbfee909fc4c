// The environment variables that name a proxy to programs. Pure functions.
#pragma once

#include <array>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/library/proxy_answer.h"

namespace client {

/// All these variables are set. A variable that gets no value is removed, because an old value
/// could contradict the answer. Each variable has two spellings, because some programs read only
/// one of them.
inline constexpr std::array<std::string_view, 8> kProxyVariables{
    "http_proxy", "https_proxy", "all_proxy", "no_proxy",
    "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"};

/// The value of no_proxy: this machine and this link, which no proxy reaches (domain/local_host.h
/// has the same list). All programs understand names and addresses in it; some, such as curl, also
/// understand ranges.
inline constexpr std::string_view kNotThroughProxy =
    "localhost,.localhost,127.0.0.1,::1,127.0.0.0/8,0.0.0.0,169.254.0.0/16,fe80::/10";

/// Their values for `entry`, which is the answer for `url`: the
/// same proxy for all schemes, also one that only some programs can speak to, as those fail then
/// and do not pass it by. Empty for DIRECT. no_proxy is left out if it would name
/// the host of `url` itself.
std::map<std::string_view, std::string> proxyVariables(const ProxyEntry& entry,
                                                       std::string_view url);

/// Lines that a POSIX shell may evaluate: sets and exports the variables, and unsets the others.
std::string shellLines(const std::map<std::string_view, std::string>& variables);

/// The environment `before`, "NAME=VALUE" each, with the variables in place of those of
/// kProxyVariables that it has.
std::vector<std::string> withVariables(std::span<const std::string> before,
                                       const std::map<std::string_view, std::string>& variables);

}  // namespace client
