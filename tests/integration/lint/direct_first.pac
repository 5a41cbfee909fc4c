function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "DIRECT; PROXY p.corp.example:8080"; // expect: direct-first
  return "PROXY proxy.corp.example:8080; DIRECT";
}
