function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (shExpMatch(host, "(www|ftp).example.org")) return "DIRECT"; // expect: shexp-regex
  if (shExpMatch(host, "[ab].example.com")) return "DIRECT"; // expect: shexp-regex
  if (shExpMatch(host, "^intranet.*")) return "DIRECT"; // expect: shexp-regex
  if (shExpMatch(url, "http://a.example/c++/*")) return "DIRECT"; // expect: shexp-regex
  if (shExpMatch(host, "*.a.example|*.b.example")) return "DIRECT"; // expect: shexp-regex
  if (shExpMatch(url, "http://a.example/(*")) return "DIRECT"; // expect: shexp-regex
  return "PROXY proxy.corp.example:8080; DIRECT";
}
