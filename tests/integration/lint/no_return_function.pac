function outside(host) {
  if (weekdayRange("MON", "FRI")) return "PROXY proxy.corp.example:8080; DIRECT";
} // expect: no-return

function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  return outside(host);
}
