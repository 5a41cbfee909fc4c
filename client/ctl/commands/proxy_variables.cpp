#include "client/ctl/commands/proxy_variables.h"

#include <algorithm>

#include "base/shell_word.h"
#include "domain/local_host.h"

namespace client {

std::map<std::string_view, std::string> proxyVariables(const ProxyEntry& entry,
                                                       std::string_view url) {
  std::map<std::string_view, std::string> variables;
  const auto proxy = proxyUrl(entry);
  if (proxy.empty()) return variables;
  for (const auto name : kProxyVariables) {
    if (name != "no_proxy" && name != "NO_PROXY") {
      variables[name] = proxy;
    } else if (!domain::isLocalUrl(url)) {
      variables[name] = kNotThroughProxy;
    }
  }
  return variables;
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
    assignments += '=' + base::shellWord(found->second) + '\n';
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
