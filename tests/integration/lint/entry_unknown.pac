function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "PROXIES p.corp.example:80; DIRECT"; // expect: entry-unknown
  if (host == "b.example") return "p.corp.example:80; DIRECT"; // expect: entry-unknown
  if (host == "c.example") return "PROXY; DIRECT"; // expect: entry-unknown
  if (host == "d.example") return "PROXY http://p.corp.example:80; DIRECT"; // expect: entry-unknown
  if (host == "e.example") return "PROXY a.corp.example:80, DIRECT"; // expect: entry-unknown
  if (host == "f.example") return "PROXY a.corp.example:80 DIRECT"; // expect: entry-unknown
  if (host == "g.example") return "PROXY a.corp.example:80/; DIRECT"; // expect: entry-unknown
  if (host == "h.example") return "SOCKS a.corp.example:80, SOCKS b.corp.example:80"; // expect: entry-unknown
  return "PROXY proxy.corp.example:8080; DIRECT";
}
