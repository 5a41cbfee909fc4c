function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".corp.example")) return "DIRECT";
  if (shExpMatch(url, "ftp:*") && !isResolvable(host)) return "DIRECT";
  var address = dnsResolve(host);
  if (address == null) return "PROXY proxy.corp.example:8080; DIRECT";
  if (isInNet(address, "10.0.0.0", "255.0.0.0")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
