// A jump with a label may leave several loops and switches.
function FindProxyForURL(url, host) {
  var parts = host.split("."), hit = false;
  search: while (true) {
    for (var i = 0; i < parts.length; i++) {
      if (parts[i] == "corp") { hit = true; break search; }
    }
    switch (parts.length) {
      case 7: break search;
    }
    parts.push("x");
  }
  if (hit || isPlainHostName(host)) return "DIRECT";
  walk: for (;;) {
    switch (host.charAt(0)) {
      case "w": break walk;
      default: host = host.slice(1) || "w";
    }
  }
  outer: for (;;) {
    inner: while (true) {
      for (;;) { if (host) break inner; else continue outer; }
    }
    host += "x";
    while (true) { break; }
    if (host.length > 5) return "PROXY a.corp.example:8080; DIRECT";
  }
  return "DIRECT"; // expect: unreachable
}
