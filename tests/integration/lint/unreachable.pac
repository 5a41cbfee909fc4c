function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".example.org")) return "PROXY a.corp.example:8080; DIRECT";
  if (dnsDomainIs(host, ".shop.example.org")) return "DIRECT"; // expect: unreachable
  if (shExpMatch(host, "www.*.example.org")) return "DIRECT"; // expect: unreachable
  if (host == "x.example.org" || host == "y.example.net") return "DIRECT"; // expect: unreachable
  if (shExpMatch(url, "http://a*/c")) return "DIRECT";
  if (shExpMatch(url, "http://ab*/?/c")) return "DIRECT"; // expect: unreachable
  if (isPlainHostName(host)) return "DIRECT"; // expect: unreachable
  if (false) return "DIRECT"; // expect: unreachable
  return "PROXY proxy.corp.example:8080; DIRECT";
  alert(host); // expect: unreachable
}
