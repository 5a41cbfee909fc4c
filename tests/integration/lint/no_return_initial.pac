// At the start, the variable has no answer. The script tests it before it returns it.
var fallback = null;
function init() {
  fallback = "PROXY fallback.example:8080; DIRECT";
}
init();
function FindProxyForURL(url, host) {
  var answer = null;
  var found = false;
  var chosen = undefined;
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".a.example")) answer = "PROXY a.example:8080; DIRECT";
  if (dnsDomainIs(host, ".b.example")) found = "PROXY b.example:8080; DIRECT";
  if (answer !== null) return answer;
  if (found) return found;
  if (dnsDomainIs(host, ".c.example")) chosen = "PROXY c.example:8080; DIRECT";
  else chosen = "PROXY d.example:8080; DIRECT";
  if (dnsDomainIs(host, ".e.example")) return fallback;
  return chosen;
}
