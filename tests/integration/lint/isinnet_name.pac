function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (isInNet(host, "10.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (isInNet("gateway.corp.example", "192.168.0.0", "255.255.0.0")) return "DIRECT"; // expect: isinnet-name
  return "PROXY proxy.corp.example:8080; DIRECT";
}
