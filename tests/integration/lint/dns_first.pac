function FindProxyForURL(url, host) {
  var address = dnsResolve(host); // expect: dns-first
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".corp.example")) return "DIRECT";
  if (isInNet(address, "10.0.0.0", "255.0.0.0")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
