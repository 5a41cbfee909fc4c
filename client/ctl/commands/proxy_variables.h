// The environment variables from which programs read their proxy. Pure functions.
#pragma once

#include <array>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/library/proxy_answer.h"

namespace client {

/// All variables that describe a proxy to programs. A variable without a value is removed, because
/// an old value could contradict the answer. Each variable has two spellings, because some programs
/// read only one of them.
inline constexpr std::array<std::string_view, 8> kProxyVariables{
    "http_proxy", "https_proxy", "all_proxy", "no_proxy",
    "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"};

/// The value of no_proxy: this machine and this link, which are never reached through a proxy
/// (domain/local_host.h has the same list). All programs understand names and addresses in it. Some
/// programs, such as curl, also understand ranges.
inline constexpr std::string_view kNotThroughProxy =
    "localhost,.localhost,127.0.0.1,::1,127.0.0.0/8,0.0.0.0,169.254.0.0/16,fe80::/10";

/// The values of kProxyVariables for `entry`, the answer for `url`. All schemes get the same proxy,
/// even if only some programs support its type. A program that does not support the type then
/// fails, and does not bypass the proxy. The result is empty for DIRECT. The result does not
/// contain no_proxy if no_proxy would match the host of `url` itself.
std::map<std::string_view, std::string> proxyVariables(const ProxyEntry& entry,
                                                       std::string_view url);

/// Lines for a POSIX shell: they set and export `variables`, and unset the other kProxyVariables.
std::string shellLines(const std::map<std::string_view, std::string>& variables);

/// Returns the environment `before` with `variables` in place of all its kProxyVariables. Each
/// element is "NAME=VALUE".
std::vector<std::string> withVariables(std::span<const std::string> before,
                                       const std::map<std::string_view, std::string>& variables);

}  // namespace client
