function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  var lower = host.toLowerCase();
  var upper = host.toUpperCase();
  if (dnsDomainIs(lower, ".corp.example")) return "DIRECT";
  if (upper == "WWW.EXAMPLE.ORG") return "DIRECT";
  if (shExpMatch(url, "http://wiki.corp.example/Start/*")) return "DIRECT";
  if (/\.Example$/i.test(host) || /^[A-Za-z]+\S$/.test(host)) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
