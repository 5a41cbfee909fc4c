function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, "example.com")) return "DIRECT"; // expect: domain-dot
  if (shExpMatch(host, "*example.org")) return "DIRECT"; // expect: domain-dot
  if (host.endsWith("example.net")) return "DIRECT"; // expect: domain-dot
  if (dnsDomainIs(host, "corp")) return "DIRECT"; // expect: domain-dot
  if (shExpMatch(host, "*corp_x.example")) return "DIRECT"; // expect: domain-dot
  return "PROXY proxy.corp.example:8080; DIRECT";
}
