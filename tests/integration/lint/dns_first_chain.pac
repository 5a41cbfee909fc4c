function resolvesInside(host) {
  return isInNet(dnsResolve(host), "10.0.0.0", "255.0.0.0");
}

function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) {
    return "DIRECT";
  } else if (resolvesInside(host)) { // expect: dns-first
    return "DIRECT";
  } else if (shExpMatch(host, "*.example.org")) {
    return "DIRECT";
  } else {
    return "PROXY proxy.corp.example:8080; DIRECT";
  }
}
