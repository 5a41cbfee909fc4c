// A proxy auto-config script with the four rules that most networks need.
//
// FindProxyForURL is called for each URL. It returns what to try, in order, separated by ";".
// For an https URL, the script sees only scheme, host and port.

function FindProxyForURL(url, host) {
  // Names without a dot are machines of this network: no proxy.
  if (isPlainHostName(host)) {
    return "DIRECT";
  }

  // The company's own servers: through the branch proxy, directly if it is down.
  if (dnsDomainIs(host, ".corp.example")) {
    return "PROXY branch.corp.example:3128; DIRECT";
  }

  // Large files come from a cache of their own.
  if (shExpMatch(url, "*://downloads.*/*.iso")) {
    return "PROXY cache.corp.example:8080";
  }

  // All other servers: two proxies, then SOCKS, never directly.
  return "PROXY 10.0.0.1:8080; PROXY 10.0.0.2:8080; SOCKS 10.0.0.3:1080";
}
