function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (shExpMatch(url, "https://mail.example/owa/*")) return "DIRECT"; // expect: https-path
  if (url == "https://www.example/start") return "DIRECT"; // expect: https-path
  if (url.indexOf("https://files.example/public/") == 0) return "DIRECT"; // expect: https-path
  if (url.startsWith("wss://chat.example/room")) return "DIRECT"; // expect: https-path
  return "PROXY proxy.corp.example:8080; DIRECT";
}
