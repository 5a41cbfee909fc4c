function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (/^([a-z]+)*\.example$/.test(host)) return "DIRECT"; // expect: cost
  if (/^((a+))+$/.test(host) || /^(a|a)*$/.test(host)) return "DIRECT"; // expect: cost, cost
  if (/^(\w+-?)*$/.test(host)) return "DIRECT"; // expect: cost
  if (/^(a+){2,}$/.test(host)) return "DIRECT"; // expect: cost
  if (/^(a|A)+$/i.test(host)) return "DIRECT"; // expect: cost
  if (/(.*\.)*corp\.example$/.test(host)) return "DIRECT"; // expect: cost
  if (/^(?:x|(?<name>(?:[a-z]{2,3})+))+:/.test(url)) return "DIRECT"; // expect: cost
  return "PROXY proxy.corp.example:8080; DIRECT";
}
