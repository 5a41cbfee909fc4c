function FindProxyForURL(url, host) {
  "in capitals";
  "use strict";
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  answer = "DIRECT"; // expect: no-var
  return answer;
}
class Rules {
  constructor() { kept = 1; } // expect: no-var
}
function sloppy() { shared = 1; } // expect: no-var
function strict() { "use strict"; shared = 2; }
