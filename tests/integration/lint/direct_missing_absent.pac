// An answer of DIRECT alone, and proxies that DIRECT follows.
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".example.org")) return "PROXY a.corp.example:8080; PROXY b.corp.example:8080; DIRECT";
  return "SOCKS socks.corp.example:1080;DIRECT";
}
