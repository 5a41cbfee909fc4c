// One comment names the linter, but not the word that ignores rules. The other one names rules that exist.
// pac-lint: the next line is meant as it is
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  // pac-lint: ignore=domain-dot,host-case
  if (dnsDomainIs(host, "Example.org")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
