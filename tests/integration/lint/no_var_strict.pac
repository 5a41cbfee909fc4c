"use strict";
function FindProxyForURL(url, host) {
  if (isPlainHostName(host)) return "DIRECT";
  answer = "DIRECT"; // expect: no-var
  return answer;
}
