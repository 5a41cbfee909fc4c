function FindProxyForURL(url, host) {
  if (host.indexOf(".") < 0) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
