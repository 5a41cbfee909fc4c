var fallback = "PROXY b.example:8080";
function choose(host) {
  if (dnsDomainIs(host, ".a.example")) fallback = fallback + "; DIRECT";
}
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  var p = "PROXY a.example:8080"; // expect: direct-missing
  if (dnsDomainIs(host, ".a.example")) return p;
  p += "; DIRECT";
  choose(host);
  return dnsDomainIs(host, ".b.example") ? fallback : p;
}
