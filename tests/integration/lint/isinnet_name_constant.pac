var gateway = "gw.corp.example";
var gateways = ["192.0.2.1", "gw2.corp.example"];
var addresses = ["192.0.2.1", "192.0.2.2", "2001:db8::1"];
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (isInNet(gateway, "192.168.0.0", "255.255.0.0")) return "DIRECT"; // expect: isinnet-name
  for (var i = 0; i < gateways.length; i++) {
    if (isInNet(gateways[i], "192.168.0.0", "255.255.0.0")) return "DIRECT"; // expect: isinnet-name
  }
  for (var address of addresses) {
    if (isInNet(address, "192.168.0.0", "255.255.0.0")) return "DIRECT";
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
