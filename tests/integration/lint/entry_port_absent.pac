function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "PROXY [2001:db8::1]:3128; DIRECT";
  if (host == "b.example") return "PROXY p" + (host.length % 2) + ".corp.example:8080; DIRECT";
  if (host == "c.example") return `PROXY ${host}; DIRECT`;
  return "PROXY proxy.corp.example:8080; DIRECT";
}
