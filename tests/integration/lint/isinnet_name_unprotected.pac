// None of these tests keeps names away from isInNet.
function notDotted(h) { return !/^[0-9.]+$/.test(h); }
function FindProxyForURL(url, host) {
  var isName = !isValidIpAddress(host);
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (!isValidIpAddress(host) && isInNet(host, "10.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (/^web\d+\./.test(host) && isInNet(host, "10.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (/^\d+$|[0-9]/.test(host) && isInNet(host, "10.1.0.0", "255.255.0.0")) return "DIRECT"; // expect: isinnet-name
  if ((isValidIpAddress(host) || host.length > 3) && isInNet(host, "11.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (isValidIpAddress(host) || isInNet(host, "12.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (isName && isInNet(host, "13.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (notDotted(host) && isInNet(host, "14.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (isValidIpAddress(host) == false && isInNet(host, "15.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  if (isInNet(host.toLowerCase(), "16.0.0.0", "255.0.0.0")) return "DIRECT"; // expect: isinnet-name
  return "PROXY proxy.corp.example:8080; DIRECT";
}
