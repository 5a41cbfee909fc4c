#include "client/ctl/commands/proxy_variables.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

namespace client {

namespace {

/// Whether kNotThroughProxy names `host`, also in another spelling that a program may undo.
bool isThisMachine(std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);
  if (host == "localhost" || host.ends_with(".localhost")) return true;
  const std::string text(host);
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return v4.s_addr == htonl(INADDR_LOOPBACK);
  in6_addr v6{};
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace

std::map<std::string_view, std::string> proxyVariables(const ProxyEntry& entry,
                                                       std::string_view host) {
  std::map<std::string_view, std::string> variables;
  const auto url = proxyUrl(entry);
  if (url.empty()) return variables;
  for (const auto name : kProxyVariables) {
    if (name != "no_proxy" && name != "NO_PROXY") {
      variables[name] = url;
    } else if (!isThisMachine(host)) {
      variables[name] = kNotThroughProxy;
    }
  }
  return variables;
}

std::string shellWord(std::string_view text) {
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  return word + "'";
}

std::string shellLines(const std::map<std::string_view, std::string>& variables) {
  std::string assignments;
  std::string set;
  std::string unset;
  for (const auto name : kProxyVariables) {
    const auto found = variables.find(name);
    auto& list = found == variables.end() ? unset : set;
    list += ' ';
    list += name;
    if (found == variables.end()) continue;
    assignments += name;
    assignments += '=' + shellWord(found->second) + '\n';
  }
  if (!set.empty()) assignments += "export" + set + '\n';
  if (!unset.empty()) assignments += "unset" + unset + '\n';
  return assignments;
}

std::vector<std::string> withVariables(std::span<const std::string> before,
                                       const std::map<std::string_view, std::string>& variables) {
  std::vector<std::string> after;
  for (const auto& entry : before) {
    const auto name = std::string_view(entry).substr(0, entry.find('='));
    if (std::find(kProxyVariables.begin(), kProxyVariables.end(), name) == kProxyVariables.end()) {
      after.push_back(entry);
    }
  }
  for (const auto& [name, value] : variables) after.push_back(std::string(name) + '=' + value);
  return after;
}

}  // namespace client
