function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (/^([a-z]+)*\.example$/.test(host)) return "DIRECT"; // expect: cost
  return "PROXY proxy.corp.example:8080; DIRECT";
}
