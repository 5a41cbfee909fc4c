function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "PROXY p.corp.example:8080; DIRECT;";
  if (host == "b.example") return "DIRECT;";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
