function ofTable(host) {
  if (dnsDomainIs(host, ".a.example")) return "PROXY p.corp.example:8080; DIRECT";
  return null;
}
function ofList(host) {
  if (dnsDomainIs(host, ".b.example")) return "PROXY p.corp.example:8080; DIRECT";
  return "";
}
function ofName(host) {
  if (dnsDomainIs(host, ".c.example")) return "PROXY p.corp.example:8080; DIRECT";
  return ""; // expect: no-return
}
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  var found = ofTable(host);
  if (found) return found;
  var listed = ofList(host);
  if (listed == "") listed = ofTable(host) || ofList(host) || "DIRECT";
  if (host == "d.example") return listed;
  if (host == "e.example") return ""; // expect: no-return
  if (host == "f.example") return " ; "; // expect: no-return
  return ofName(host);
}
