function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".shop.example.org")) return "DIRECT";
  if (dnsDomainIs(host, ".example.org") && weekdayRange("SAT", "SUN")) return "DIRECT";
  if (dnsDomainIs(host, ".example.org")) return "PROXY a.corp.example:8080; DIRECT";
  if (shExpMatch(host, "a?.example.net")) return "DIRECT";
  if (shExpMatch(host, "a*.example.net")) return "DIRECT";
  var tries = 0;
  if (tries == 0) tries++;
  if (tries == 0) return "DIRECT";
  return rest(url);
  function rest(url) { return "PROXY proxy.corp.example:8080; DIRECT"; }
}
