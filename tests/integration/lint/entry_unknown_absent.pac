// Some browser accepts each of these keywords. The daemon drops two of them.
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (host == "a.example") return "SOCKS4 socks.corp.example:1080; DIRECT"; // expect: entry-dropped
  if (host == "b.example") return "HTTP proxy.corp.example:8080; DIRECT"; // expect: entry-dropped
  return "PROXY proxy.corp.example:8080; SOCKS socks.corp.example:1080; DIRECT";
}
