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
  switch (true) {
    case shExpMatch(host, "www.*"): return "DIRECT";
    case shExpMatch(host, "ftp.*"): return "DIRECT";
    case timeRange(8, 18): return "DIRECT";
    case shExpMatch(host, "www.*"): return "PROXY p.corp.example:8080; DIRECT"; // expect: unreachable
    case timeRange(8, 18): return "PROXY p.corp.example:8080; DIRECT"; // expect: unreachable
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
