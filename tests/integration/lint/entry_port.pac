function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "PROXY p.corp.example; DIRECT"; // expect: entry-port
  if (host == "b.example") return "SOCKS s.corp.example:; DIRECT"; // expect: entry-port
  if (host == "c.example") return "PROXY p.corp.example:70000; DIRECT"; // expect: entry-port
  return "PROXY proxy.corp.example:8080; DIRECT";
}
