function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (isValidIpAddress(host) && isInNet(host, "10.0.0.0", "255.0.0.0")) return "DIRECT";
  if (/^\d+\.\d+\.\d+\.\d+$/.test(host)) {
    if (isInNet(host, "192.168.0.0", "255.255.0.0")) return "DIRECT";
  }
  if (isInNet(myIpAddress(), "172.16.0.0", "255.240.0.0")) return "PROXY branch.corp.example:3128; DIRECT";
  var address = dnsResolve(host);
  if (isInNet(address, "172.16.0.0", "255.240.0.0")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
