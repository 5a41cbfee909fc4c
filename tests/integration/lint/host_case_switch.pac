function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  switch (host) {
    case "www.example.org":
      return "DIRECT";
    case "Ftp.example.org": // expect: host-case
      return "DIRECT";
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
