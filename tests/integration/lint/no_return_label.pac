function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  a: while (true) {
    do { if (host.length > 3) break a; host += "x"; } while (true);
  }
} // expect: no-return
