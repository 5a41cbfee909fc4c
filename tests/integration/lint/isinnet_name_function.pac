// isInNet is called only for addresses.
var dotted = /^[0-9.]+$/;

function isInside(host) {
  if (!dotted.test(host)) return false;
  return isInNet(host, "10.0.0.0", "255.0.0.0");
}

function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || isInside(host)) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
