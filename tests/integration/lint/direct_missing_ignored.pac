function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  // The network allows connections only through the proxy. pac-lint cannot know that.
  // pac-lint: ignore=direct-missing
  return "PROXY a.corp.example:8080; PROXY b.corp.example:8080";
}
