function FindProxyForURL(url, host) { // expect: cost
  if (isPlainHostName(host)) return "DIRECT";
  if (!isResolvable("proxy.corp.example")) return "DIRECT";
  if (!isResolvable("backup.corp.example")) return "PROXY proxy.corp.example:8080; DIRECT";
  if (isInNet(dnsResolve(host), "10.0.0.0", "255.0.0.0")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; PROXY backup.corp.example:8080; DIRECT";
}
