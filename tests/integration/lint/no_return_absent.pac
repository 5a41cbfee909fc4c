function logged(host) {
  alert(host);
}

function FindProxyForURL(url, host) {
  logged(host);
  if (isPlainHostName(host)) return "DIRECT";
  switch (url.substring(0, 5)) {
    case "http:":
      return "PROXY proxy.corp.example:8080; DIRECT";
    default:
      throw new Error("only http");
  }
}
