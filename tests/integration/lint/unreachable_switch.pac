function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  switch (dnsDomainLevels(host)) {
    case 1:
      return "DIRECT";
      break; // expect: unreachable
    case 2:
      break;
    case 1: // expect: unreachable
      return "DIRECT";
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
