// An "else if" has no effect on URLs that took an earlier branch.
function FindProxyForURL(url, host) {
  var secure = false;
  if (isPlainHostName(host)) return "DIRECT";
  if (url.substring(0, 6) == "https:") {
    secure = true;
  } else if (dnsDomainIs(host, ".corp.example")) {
    return "DIRECT";
  }
  if (dnsDomainIs(host, ".corp.example")) return "PROXY secure.example:8080; DIRECT";
  if (dnsDomainIs(host, ".one.example")) {
    return "DIRECT";
  } else if (dnsDomainIs(host, ".two.example")) {
    return "DIRECT";
  }
  if (dnsDomainIs(host, ".two.example")) return "PROXY two.example:8080; DIRECT"; // expect: unreachable
  return secure ? "PROXY secure.example:8080; DIRECT" : "DIRECT";
}
