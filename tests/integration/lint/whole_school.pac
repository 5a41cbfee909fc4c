function FindProxyForURL(url, host) {
  "use strict";
  const lower = host.toLowerCase();
  const direct = new Set(["moodle.school.example", "mail.school.example"]);
  if (isPlainHostName(lower) || direct.has(lower)) return "DIRECT";

  for (const suffix of [".school.example", ".library.example"]) {
    if (lower.endsWith(suffix)) return "DIRECT";
  }
  const lesson = weekdayRange("MON", "FRI") && timeRange(8, 0, 15, 30);
  return lesson ? "PROXY filter.school.example:8080" // expect: direct-missing
    : "PROXY open.school.example:8080; DIRECT";
}
