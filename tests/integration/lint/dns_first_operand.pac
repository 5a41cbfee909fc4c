function FindProxyForURL(url, host) {
  if (!isResolvable(host) || isPlainHostName(host)) return "DIRECT"; // expect: dns-first
  return "PROXY proxy.corp.example:8080; DIRECT";
}
