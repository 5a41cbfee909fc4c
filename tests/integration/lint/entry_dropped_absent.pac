function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "SOCKS socks.corp.example:1080; DIRECT";
  if (host == "b.example") return "PROXY a.corp.example:80;PROXY b.corp.example:80;\tDIRECT;";
  if (host == "c.example") return "PROXY " + myIpAddress() + ":80; DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
