var main = "PROXY a.corp.example:8080"; // expect: direct-missing
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".example.org")) return main;
  return "PROXY a.corp.example:8080; PROXY b.corp.example:8080"; // expect: direct-missing
}
