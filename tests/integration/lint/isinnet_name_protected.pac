// In each of these forms, isInNet is called only for addresses.
var dotted = /^(?:25[0-5]|2[0-4]\d|[01]?\d?\d)(?:\.(?:25[0-5]|2[0-4]\d|[01]?\d?\d)){3}$/;
function isDotted(h) {
  if (h.length > 15) return false;
  return dotted.test(h);
}
function FindProxyForURL(url, host) {
  var isAddress = /^\d{1,3}(\.\d{1,3}){3}$/.test(host);
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (isAddress && url.length > 9 && (isInNet(host, "10.0.0.0", "255.0.0.0") || host == "1.2.3.4")) return "DIRECT";
  if (isDotted(host) === true && isInNet(host, "11.0.0.0", "255.0.0.0")) return "DIRECT";
  if (host.match(dotted) != null && isInNet(host, "12.0.0.0", "255.0.0.0")) return "DIRECT";
  if (host.search(/^[\d.]+$/) >= 0 && isInNet(host, "13.0.0.0", "255.0.0.0")) return "DIRECT";
  if ((isAddress || isDotted(host)) && isInNet(host, "14.0.0.0", "255.0.0.0")) return "DIRECT";
  if (!isAddress) {
    host += "";
  } else if (isInNet(host, "15.0.0.0", "255.0.0.0")) {
    return "DIRECT";
  }
  if (!isAddress || !isInNet(host, "16.0.0.0", "255.0.0.0")) return "PROXY proxy.corp.example:8080; DIRECT";
  return "DIRECT";
}
