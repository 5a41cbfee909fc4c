var FindProxyForURL = function (u, h) {
  if (isPlainHostName(h)) return "DIRECT";
  if (dnsDomainIs(h, ".Corp.example")) return "DIRECT"; // expect: host-case
  return choose(h);
};

var choose = (name) => name.length > 10 ? "PROXY a.corp.example:8080; DIRECT" : "DIRECT";
