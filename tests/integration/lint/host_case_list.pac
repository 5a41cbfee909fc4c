var hosts = ["www.example.org", "Mail.example.org"];
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  for (var i = 0; i < hosts.length; i++) {
    if (host == hosts[i]) return "DIRECT"; // expect: host-case
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
