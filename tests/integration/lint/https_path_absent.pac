function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (shExpMatch(url, "https://mail.example/*")) return "DIRECT";
  if (url.substring(0, 6) == "https:" && host == "www.example") return "DIRECT";
  if (shExpMatch(url, "http://files.example/public/*")) return "DIRECT";
  if (url == "https://www.example.net/") return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
