// Spreads hosts over three proxies, the same host always to the same one.
var proxies = ["a.corp.example:8080", "b.corp.example:8080", "c.corp.example:8080"];

function hash(text) {
  var sum = 0;
  for (var i = 0; i < text.length; i++) sum = (sum * 31 + text.charCodeAt(i)) % 65521;
  return sum;
}

function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  var first = hash(host) % proxies.length;
  var answer = "";
  for (var i = 0; i < proxies.length; i++) {
    answer += "PROXY " + proxies[(first + i) % proxies.length] + "; ";
  }
  return answer + "DIRECT";
}
