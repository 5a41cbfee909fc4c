this["FindProxyForURL"] = function (url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (dnsDomainIs(host, ".example.com")) return "PROXY p.corp.example"; // expect: entry-port, direct-missing
  return "DIRECT";
};
