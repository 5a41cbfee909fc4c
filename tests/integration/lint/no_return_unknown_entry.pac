// expect: no-return
var table = { find: function (url, host) { return isPlainHostName(host) ? "DIRECT" : "PROXY p.example:8080"; } };
var FindProxyForURL = table.find;
