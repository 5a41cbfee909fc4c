function once(host) {
  do {
    return "DIRECT";
  } while (false);
}
function eitherWay(host) {
  do {
    if (host == "a.example") return "DIRECT";
    else return "PROXY proxy.corp.example:8080; DIRECT";
  } while (host);
  alert(host); // expect: unreachable
}
function left(host) {
  do {
    if (host == "a.example") break;
    return "DIRECT";
  } while (host);
} // expect: no-return
function continued(host) {
  do {
    if (host == "a.example") continue;
    return "DIRECT";
  } while (false);
} // expect: no-return
function labelled(host) {
  again: do {
    for (;;) {
      if (host == "a.example") continue again;
      return "DIRECT";
    }
  } while (false);
} // expect: no-return
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".a.example")) return once(host);
  if (dnsDomainIs(host, ".b.example")) return eitherWay(host);
  if (dnsDomainIs(host, ".c.example")) return left(host);
  if (dnsDomainIs(host, ".d.example")) return continued(host);
  return labelled(host);
}
