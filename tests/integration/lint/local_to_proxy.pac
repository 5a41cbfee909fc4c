function FindProxyForURL(url, host) {
  if (dnsDomainIs(host, ".corp.example")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT"; // expect: local-to-proxy
}
