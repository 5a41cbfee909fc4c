function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, "example.com")) return "DIRECT"; // pac-lint: ignore=domain-dot
  if (dnsDomainIs(host, "example.org")) return "DIRECT"; // pac-lint: ignore=domain-dots expect: domain-dot, ignore-unknown
  /* pac-lint: ignore=domain-dot,host-case */
  // Both rules are meant for the line below this one.

  if (dnsDomainIs(host, "Example.net")) return "DIRECT";
  if (dnsDomainIs(host, "Example.net")) return "DIRECT"; // expect: domain-dot, host-case, unreachable
  return "PROXY proxy.corp.example:8080; DIRECT";
}
