function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  // Nothing leaves the network but through the proxy. pac-lint does not know that.
  // pac-lint: ignore=direct-missing
  return "PROXY a.corp.example:8080; PROXY b.corp.example:8080";
}
