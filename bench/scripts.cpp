#include "bench/scripts.h"

namespace bench {

namespace {

const std::string kHead = "function FindProxyForURL(url, host) {\n";

std::string tail() {
  return "  return '" + std::string(kAnswer) + "';\n}\n";
}

std::string rule(int number) {
  const auto text = std::to_string(number);
  if (number % 2 == 0) {
    return "  if (dnsDomainIs(host, '.site" + text +
           ".test')) return 'PROXY one.test:8080; DIRECT';\n";
  }
  return "  if (shExpMatch(host, '*.part" + text + ".test')) return 'SOCKS two.test:1080';\n";
}

std::string domain(int number) {
  return "'site" + std::to_string(number) + ".test'";
}

}  // namespace

std::string trivialScript() {
  return kHead + tail();
}

std::string rulesScript(int rules) {
  std::string script = kHead;
  for (int i = 0; i < rules; ++i) script += rule(i);
  return script + tail();
}

std::string scriptOf(std::size_t bytes) {
  std::string script = kHead;
  const auto end = tail();
  for (int i = 0;; ++i) {
    const auto next = rule(i);
    if (script.size() + next.size() + end.size() > bytes) return script + end;
    script += next;
  }
}

std::string linearListScript(int domains) {
  std::string script = "var domains = [\n";
  for (int i = 0; i < domains; ++i) script += domain(i) + ",\n";
  script += "];\n" + kHead +
            "  for (var i = 0; i < domains.length; i++) {\n"
            "    if (dnsDomainIs(host, domains[i])) return 'DIRECT';\n"
            "  }\n";
  return script + tail();
}

std::string hashScript(int domains) {
  std::string script = "var domains = {\n";
  for (int i = 0; i < domains; ++i) script += domain(i) + ": 1,\n";
  script += "};\n" + kHead +
            "  for (var rest = host; ; rest = rest.substring(dot + 1)) {\n"
            "    if (Object.prototype.hasOwnProperty.call(domains, rest)) return 'DIRECT';\n"
            "    var dot = rest.indexOf('.');\n"
            "    if (dot < 0) break;\n"
            "  }\n";
  return script + tail();
}

std::string modernScript() {
  return R"(const proxies = new Map([['corp', ['one.test', 8080]], ['lab', ['two.test', 3128]]]);
const near = new Set(['printer.test', 'files.test', 'mail.test']);
const isNear = (host) => near.has(host) || [...near].some((name) => host.endsWith(`.${name}`));
const proxyOf = ({ host, zone = 'corp' }) => {
  const [name, port] = proxies.get(zone) ?? [];
  return host?.length > 0 && name ? `PROXY ${name}:${port}` : 'DIRECT';
};
function FindProxyForURL(url, host) {
  const { length } = host.split('.');
  if (length < 2 || isNear(host)) return 'DIRECT';
  for (const zone of proxies.keys()) {
    if (host.includes(`.${zone}.`)) return proxyOf({ host, zone });
  }
)" + tail();
}

}  // namespace bench
