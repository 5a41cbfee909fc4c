function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dateRange("APR", "JUN")) return "DIRECT"; // expect: date-month-end
  if (dateRange("NOV", 2025, "FEB", 2026)) return "DIRECT"; // expect: date-month-end
  if (dateRange(1, "SEP", 31, "SEP", "GMT")) return "DIRECT"; // expect: date-month-end
  return "PROXY proxy.corp.example:8080; DIRECT";
}
