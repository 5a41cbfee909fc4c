function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".example.com") || host == "example.com") return "DIRECT";
  if (shExpMatch(host, "*.example.org") || shExpMatch(host, "www.*example.org")) return "DIRECT";
  if (host.endsWith(".example.net")) return "DIRECT";
  if (shExpMatch(url, "*example.info")) return "DIRECT";
  if (dnsDomainIs(host, "10.0.0.1") || dnsDomainIs(host, ".corp")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
