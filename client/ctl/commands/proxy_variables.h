// The environment variables by which programs are told of a proxy. Pure functions.
#pragma once

#include <array>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/library/proxy_answer.h"

namespace client {

/// All that are set, or removed where nothing is to be set: one that is left from before would
/// speak against the answer. Each has two spellings, and programs differ in which they read.
inline constexpr std::array<std::string_view, 8> kProxyVariables{
    "http_proxy", "https_proxy", "all_proxy", "no_proxy",
    "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"};

/// What stands in no_proxy: this machine and this link, which no proxy reaches. Programs differ in
/// what they understand of it: all know names and addresses, curl and others ranges, too.
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
