function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".Corp.example")) return "DIRECT"; // expect: host-case
  if (host == "WWW.example.org") return "DIRECT"; // expect: host-case
  if (shExpMatch(host, "*.Branch.example")) return "DIRECT"; // expect: host-case
  if (localHostOrDomainIs(host, "Printer.corp.example")) return "DIRECT"; // expect: host-case
  if (shExpMatch(url, "http://Wiki.corp.example/*")) return "DIRECT"; // expect: host-case
  if (host.indexOf("Intranet") >= 0) return "DIRECT"; // expect: host-case
  if (/\.Example$/.test(host)) return "DIRECT"; // expect: host-case
  return "PROXY proxy.corp.example:8080; DIRECT";
}
