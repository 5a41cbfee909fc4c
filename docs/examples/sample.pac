// A proxy auto-config script with the four rules that most networks need.
//
// FindProxyForURL is asked once for each URL and gives what to try, in order, parted by ";".
// Of an https URL the script sees scheme, host and port alone.

function FindProxyForURL(url, host) {
  // Names without a dot are machines next door: no proxy.
  if (isPlainHostName(host)) {
    return "DIRECT";
  }

  // The company's own servers: through the branch proxy, directly where that is down.
  if (dnsDomainIs(host, ".corp.example")) {
    return "PROXY branch.corp.example:3128; DIRECT";
  }

  // Large files come from a cache of their own.
  if (shExpMatch(url, "*://downloads.*/*.iso")) {
    return "PROXY cache.corp.example:8080";
  }

  // The rest of the world: two proxies, then SOCKS, and nothing past them.
  return "PROXY 10.0.0.1:8080; PROXY 10.0.0.2:8080; SOCKS 10.0.0.3:1080";
}
