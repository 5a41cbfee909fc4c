function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".example.org")) {
    return "PROXY proxy.corp.example:8080; DIRECT";
  } else if (dnsDomainIs(host, ".example.com")) {
    return; // expect: no-return
  } else if (dnsDomainIs(host, ".example.net")) {
    return null; // expect: no-return
  }
} // expect: no-return
