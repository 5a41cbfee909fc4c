function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host == "a.example") return "HTTPS secure.corp.example:443; DIRECT"; // expect: entry-dropped
  if (host == "b.example") return "SOCKS5 socks.corp.example:1080; DIRECT"; // expect: entry-dropped
  if (host == "c.example") return "proxy p.corp.example:80; DIRECT"; // expect: entry-dropped
  if (host == "d.example") return "PROXY p.corp.example:80; DIRECT ;"; // expect: entry-dropped
  if (host == "e.example") return "direct"; // expect: entry-dropped
  return "PROXY proxy.corp.example:8080; DIRECT";
}
