#include "client/ctl/commands/pvd_script.h"

#include <cstddef>
#include <optional>
#include <set>

#include "client/ctl/terminal/script_file.h"
#include "client/library/proxy_answer.h"

namespace client::pvd {

namespace {

// A rule names each proxy at most once, so the daemon drops no entry of an answer.
static_assert(kMaxProxies <= kMaxEntries);

/// The functions that the rules call. An unknown port matches no rule with ports. The functions
/// take the host from the URL, because the argument `host` of FindProxyForURL is cut at the first
/// colon of an IPv6 address.
constexpr const char* kFunctions = R"(
function partsOf(url) {
  return /^([a-z][a-z0-9+.-]*):\/\/(?:[^\/?#]*@)?(\[[^\]\/?#]*\]|[^:\/?#]*)(?::([0-9]*))?/i.exec(url) || ["", "", ""];
}
function hostOf(parts) {
  return parts[2].toLowerCase().replace(/^\[|\]$/g, "").replace(/\.$/, "");
}
function portOf(parts) {
  if (parts[3]) return Number(parts[3]);
  return { http: 80, ws: 80, https: 443, wss: 443, ftp: 21 }[parts[1].toLowerCase()] || -1;
}
function below(host, domain) {
  return host === domain || host.slice(-domain.length - 1) === "." + domain;
}
function isSix(text) {
  return text.indexOf(":") >= 0;
}
function inSubnet(host, prefix) {
  var all = isSix(host) || /^[0-9.]+$/.test(host) ? host : dnsResolveEx(host);
  return !!all && all.split(";").some(function (one) {
    return isSix(one) === isSix(prefix) && isInNetEx(one, prefix);
  });
}
)";

std::string quoted(const std::string& text) {
  std::string result;
  result += '"';
  result += text;  // host names, addresses and ports need no escapes
  result += '"';
  return result;
}

std::string conditionOf(const std::string& domain) {
  if (domain.starts_with("*.")) return "below(host, " + quoted(domain.substr(2)) + ')';
  return "host === " + quoted(domain);
}

std::string conditionOf(const Subnet& subnet) {
  return "inSubnet(host, " + quoted(textOf(subnet)) + ')';
}

std::string conditionOf(const Ports& ports) {
  if (ports.first == ports.last) return "port === " + std::to_string(ports.first);
  return "(port >= " + std::to_string(ports.first) + " && port <= " + std::to_string(ports.last) +
         ')';
}

/// Adds "(a || b)" to the conditions, which are joined by "&&".
template <typename Value>
void addOneOf(const std::vector<Value>& values, std::string& all) {
  if (values.empty()) return;
  all += all.empty() ? "(" : " &&\n      (";
  for (std::size_t i = 0; i < values.size(); ++i) {
    all += (i == 0 ? "" : " ||\n       ") + conditionOf(values[i]);
  }
  all += ')';
}

/// The condition of `rule` in JavaScript. The cheap conditions come first, because a subnet may
/// need a lookup of the name.
std::string conditionOf(const Rule& rule) {
  std::string all;
  addOneOf(rule.ports, all);
  addOneOf(rule.domains, all);
  addOneOf(rule.subnets, all);
  return all;
}

/// The keyword of the proxy's entry. Empty if the daemon does not support the proxy's protocol.
std::string keywordOf(const Proxy& proxy) {
  if (proxy.protocol == "http-connect") return "PROXY";
  return proxy.protocol == "socks5" ? "SOCKS" : "";
}

void addEntry(const Proxy& proxy, std::string& answer) {
  const auto entry = entryOf(proxy);
  if (entry.empty()) return;
  if (!answer.empty()) answer += "; ";
  answer += entry;
}

class Maker {
 public:
  explicit Maker(const Document& document) : mDocument(document) {}

  Script make(const std::string& otherwise) {
    mScript.warnings = mDocument.warnings;
    warnOfProxies();
    std::string body;
    bool isOpen = true;  // false after a rule that matches everything
    for (std::size_t i = 0; i < mDocument.rules.size() && isOpen && mScript.error.empty(); ++i) {
      isOpen = addRule(i, body);
    }
    if (isOpen) body += "  return " + quoted(lastAnswer(otherwise)) + ";\n";
    if (!mScript.error.empty()) return mScript;
    mScript.text = "// The proxies of " + mDocument.identifier + ", until " + mDocument.expires +
                   ".\n// Made by: proxymanagerctl pvd to-pac\n" + kFunctions +
                   "\nfunction FindProxyForURL(url, name) {\n  var parts = partsOf(url), "
                   "host = hostOf(parts), port = portOf(parts);\n" +
                   body + "}\n";
    if (mScript.text.size() > kMaxScriptBytes) refuse("the script is longer than 512,000 bytes");
    return mScript;
  }

 private:
  void warn(const std::string& warning) { mScript.warnings.push_back(warning); }

  void refuse(const std::string& why) {
    mScript.text.clear();
    mScript.error = why;
  }

  void warnOfProxies() {
    for (const auto& proxy : mDocument.proxies) {
      const auto name = proxy.protocol + " " + proxy.location;
      if (!proxy.whyIgnored.empty()) {
        warn("the proxy \"" + name + "\" is ignored: " + proxy.whyIgnored);
      } else if (keywordOf(proxy).empty()) {
        warn("the proxy \"" + name + "\" cannot be expressed: the daemon knows no such proxies");
      } else if (entryOf(proxy).empty()) {
        warn("the proxy \"" + name + "\" cannot be expressed: programs use no host of this form");
      } else {
        if (proxy.protocol == "socks5")
          warn("the proxy \"" + name + "\" becomes SOCKS, which names no version");
        if (proxy.speaksOtherHttp)
          warn("the hint \"alpn\" of the proxy \"" + name + "\" is lost: programs use HTTP/1.1");
      }
    }
  }

  /// The answer of a rule. Returns nothing if none of the rule's proxies can be used; the script
  /// then omits the rule.
  std::optional<std::string> answerOf(std::size_t number) {
    const auto& rule = mDocument.rules[number];
    if (rule.proxies.empty()) return "DIRECT";
    std::string answer;
    bool applies = false;
    std::set<std::string> named;
    for (const auto& identifier : rule.proxies) {
      if (!named.insert(identifier).second) continue;
      for (const auto& proxy : mDocument.proxies) {
        if (proxy.identifier != identifier || !proxy.whyIgnored.empty()) continue;
        applies = true;
        addEntry(proxy, answer);
      }
    }
    const auto name = "rule " + std::to_string(number + 1);
    if (!applies) {
      warn(name + " is left out: none of its proxies can be used");
      return {};
    }
    if (answer.empty())
      refuse(name + " cannot be expressed: no answer can name one of its proxies");
    return answer;
  }

  /// Adds the rule with this number to `body`. @return whether further rules can match
  bool addRule(std::size_t number, std::string& body) {
    const auto& rule = mDocument.rules[number];
    if (!rule.whyIgnored.empty()) {
      warn("rule " + std::to_string(number + 1) + " is ignored: " + rule.whyIgnored);
      return true;
    }
    const auto answer = answerOf(number);
    if (!answer) return true;
    if (!rule.ports.empty())
      warn("rule " + std::to_string(number + 1) +
           " names ports: the daemon caches one answer for a "
           "host, also for its other ports");
    const auto condition = conditionOf(rule);
    body += (condition.empty() ? "  return " : "  if (" + condition + ") return ") +
            quoted(*answer) + ";\n";
    return !condition.empty();
  }

  std::string lastAnswer(const std::string& otherwise) {
    std::string answer;
    bool hasOne = false;
    for (const auto& proxy : mDocument.proxies) {
      if (proxy.identifier || !proxy.whyIgnored.empty()) continue;
      hasOne = true;
      addEntry(proxy, answer);
    }
    if (!answer.empty()) return answer;
    if (hasOne)
      refuse("the proxies for any traffic cannot be expressed: no answer can name one of them");
    warn("what no rule matches gets \"" + otherwise +
         "\": the document does not name the proxy that it "
         "is of (--otherwise)");
    return otherwise;
  }

  const Document& mDocument;
  Script mScript;
};

}  // namespace

std::string entryOf(const Proxy& proxy) {
  const auto keyword = keywordOf(proxy);
  if (keyword.empty()) return "";
  const auto entry = keyword + ' ' + proxy.location;
  return parseEntry(entry).kind == ProxyKind::kUnusable ? "" : entry;
}

Script scriptOf(const Document& document, const std::string& otherwise) {
  return Maker(document).make(otherwise);
}

}  // namespace client::pvd
