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

/// What stands in no_proxy: this machine, which no proxy reaches.
inline constexpr std::string_view kNotThroughProxy = "localhost,127.0.0.1,::1";

/// Their values for `entry`, which is the answer for a URL of `host`, as hostOf() gives it: the
/// same proxy for all schemes, also one that only some programs can speak to, as those fail then
/// and do not pass it by. Empty for DIRECT. no_proxy is left out where it would name `host` itself.
std::map<std::string_view, std::string> proxyVariables(const ProxyEntry& entry,
                                                       std::string_view host);

/// `text` as one word of a POSIX shell that stands for itself, in single quotes.
std::string shellWord(std::string_view text);

/// Lines that a POSIX shell may evaluate: sets and exports the variables, and unsets the others.
std::string shellLines(const std::map<std::string_view, std::string>& variables);

/// The environment `before`, "NAME=VALUE" each, with the variables in place of those of
/// kProxyVariables that it has.
std::vector<std::string> withVariables(std::span<const std::string> before,
                                       const std::map<std::string_view, std::string>& variables);

}  // namespace client
