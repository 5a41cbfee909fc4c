function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (shExpMatch(host, "www?.example.org") || shExpMatch(host, "ftp.example.org")) return "DIRECT";
  if (/^[ab]\.example\.com$/.test(host)) return "DIRECT";
  if (shExpMatch(host, "a_b-c.*")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
