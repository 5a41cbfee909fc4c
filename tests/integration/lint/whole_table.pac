var table = {
  "wiki.corp.example": "DIRECT",
  "shop.example.org": "PROXY shop.corp.example:8080; DIRECT",
  "old.example.org": "SOCKS4 old.corp.example:1080; DIRECT" // expect: entry-dropped
};

function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (Object.prototype.hasOwnProperty.call(table, host)) return table[host];
  var domain = host;
  while (domain.indexOf(".") >= 0) {
    domain = domain.substring(domain.indexOf(".") + 1);
    if (domain == "blocked.example") return "PROXY 127.0.0.1:1; DIRECT";
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
