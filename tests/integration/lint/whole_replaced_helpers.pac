// If a script defines a helper itself, only the script decides what the arguments mean.
function shExpMatch(text, expression) {
  return new RegExp(expression).test(text);
}

function dnsDomainIs(host, domain) {
  return host == domain || host.slice(-domain.length - 1) == "." + domain;
}

function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  if (shExpMatch(host, "^(www|ftp)[.]example[.]org$")) return "DIRECT";
  if (dnsDomainIs(host, "example.com")) return "DIRECT";
  return "PROXY proxy.corp.example:8080; DIRECT";
}
