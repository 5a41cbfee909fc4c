// Each round of these repetitions begins or ends in one way, or nothing after them can fail.
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (/^www(\.[a-z0-9-]+)+$/.test(host)) return "DIRECT";
  if (/^[a-z]+(\.[a-z]+)*\.example$/.test(host)) return "DIRECT";
  if (/^(?:[a-z0-9-]+\.)+example\.(com|net)$/.test(host)) return "DIRECT";
  if (/(\+)+x/.test(url) || /^(a|b|cd|ce)*$/.test(host) || /^([^.]+\.)*corp$/.test(host)) return "DIRECT";
  if (/^(?:25[0-5]|2[0-4]\d|1?\d?\d)(?:\.(?:25[0-5]|2[0-4]\d|1?\d?\d)){3}$/.test(host)) return "DIRECT";
  if (/^(([a-z]{2}\.)|([a-z]{3}\.))+$/.test(host)) return "DIRECT";
  if (/^(a+)+/.test(host) || /^(a|A)+$/.test(url)) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
