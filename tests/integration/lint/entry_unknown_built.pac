// Answers that are built in variables. Only texts that the script can return count.
var port = "3128";
port = ":" + port;
var backup = "proxy.a.example:8080";
backup = "PROXY " + backup + "; DIRECT";

function appended() {
  var r = "PROXY";
  r += " proxy.a.example:8080; DIRECT";
  return r;
}

function wrapped() {
  var proxy = "proxy.a.example:8080";
  proxy = "PROXY " + proxy + "; DIRECT";
  return proxy;
}

function onBothPaths(host) {
  var answer = "proxy";
  if (dnsDomainIs(host, ".a.example")) {
    answer = "PROXY a.example:8080; DIRECT";
  } else if (dnsDomainIs(host, ".b.example")) {
    answer = "PROXY b.example:8080; DIRECT";
  } else {
    return "DIRECT";
  }
  return answer;
}

function bySwitch(host) {
  var answer = "proxy";
  switch (host) {
    case "a.example":
    case "b.example":
      answer = "PROXY a.example:8080; DIRECT";
      break;
    case "c.example":
      return "DIRECT";
    default:
      answer = "PROXY b.example" + port + "; DIRECT";
  }
  return answer;
}

function inLoop(host) {
  var list = ["a.example:8080", "b.example:8080"];
  var answer = "PROXY";
  for (var i = 0; i < list.length; i++) {
    answer = answer + (i ? "; PROXY " : " ") + list[i];
  }
  answer += "; DIRECT";
  return answer;
}

function forEachOf(host) {
  var answer = "PROXY";
  ["a.example:8080"].forEach(function (name) { answer += " " + name; });
  return answer + "; DIRECT";
}

function usedTwice(host) {
  var text = "corp.example";
  if (dnsDomainIs(host, "." + text)) return "DIRECT";
  text = "PROXY proxy." + text + ":8080; DIRECT";
  return text;
}

function inBlocks(host) {
  let proxy = "PROXY proxy.a.example:8080; DIRECT";
  if (dnsDomainIs(host, ".a.example")) {
    let proxy = "proxy.b.example:8080";
    return "PROXY " + proxy + "; DIRECT";
  }
  return proxy;
}

function ofMember(host) {
  var settings = { proxy: "proxy.a.example:8080" };
  settings.proxy = "PROXY " + settings.proxy + "; DIRECT";
  return settings.proxy;
}

function afterReturn(host) {
  var proxy;
  if (dnsDomainIs(host, ".a.example")) {
    proxy = "a.example:8080";
    return "PROXY " + proxy + "; DIRECT";
  }
  try { proxy = "PROXY b.example:8080; DIRECT"; } catch (error) { proxy = "DIRECT"; }
  return proxy;
}

function byJumps(host) {
  var answer = "unset";
  while (true) {
    if (dnsDomainIs(host, ".a.example")) { answer = "DIRECT"; break; }
    answer = "PROXY a.example:8080; DIRECT";
    break;
  }
  var other = "unset";
  decided: {
    if (dnsDomainIs(host, ".b.example")) { other = "DIRECT"; break decided; }
    for (other = "DIRECT"; host == ""; ) other = "PROXY b.example:8080; DIRECT";
  }
  return host.length > 20 ? answer : other;
}

function forOtherUses(host) {
  var text = "PROXY a.example:8080; DIRECT";
  if (dnsDomainIs(host, ".a.example")) {
    text = "corp.example";
    alert("checks " + text);
    if (dnsDomainIs(host, "." + text)) return "DIRECT";
    text = "PROXY b.example:8080; DIRECT";
  } else if (dnsDomainIs(host, ".b.example")) {
    text = "proxy";
    alert("asks the " + text);
    return "DIRECT";
  }
  return text;
}

function inRounds(host) {
  var text = "";
  for (var i = 0; i < 3; i++) {
    if (host.length == i) return text ? "PROXY " + text + "; DIRECT" : "DIRECT";
    text = "proxy number" + i;
    alert(text);
    text = "p" + i + ".example:8080";
  }
  return "DIRECT";
}

function byJumpsWrong(host) {
  var answer = "unset"; // expect: entry-unknown, direct-missing
  do {
    if (dnsDomainIs(host, ".a.example")) continue;
    answer = "PROXY a.example:8080; DIRECT";
  } while (false);
  var other = "unset"; // expect: entry-unknown, direct-missing
  decided: {
    if (dnsDomainIs(host, ".b.example")) break decided;
    other = "DIRECT";
  }
  return host.length > 20 ? answer : other;
}

function wrong(host) {
  var answer = "PROXY ";
  answer += "http://proxy.a.example:8080; DIRECT"; // expect: entry-unknown
  if (dnsDomainIs(host, ".a.example")) return answer;
  answer = "BLAH proxy.a.example:8080; DIRECT"; // expect: entry-unknown
  if (dnsDomainIs(host, ".b.example")) answer = "PROXY proxy.b.example:8080"; // expect: direct-missing
  return answer;
}

function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (dnsDomainIs(host, ".appended.example")) return appended();
  if (dnsDomainIs(host, ".wrapped.example")) return wrapped();
  if (dnsDomainIs(host, ".paths.example")) return onBothPaths(host);
  if (dnsDomainIs(host, ".switch.example")) return bySwitch(host);
  if (dnsDomainIs(host, ".loop.example")) return inLoop(host);
  if (dnsDomainIs(host, ".each.example")) return forEachOf(host);
  if (dnsDomainIs(host, ".twice.example")) return usedTwice(host);
  if (dnsDomainIs(host, ".blocks.example")) return inBlocks(host);
  if (dnsDomainIs(host, ".member.example")) return ofMember(host);
  if (dnsDomainIs(host, ".after.example")) return afterReturn(host);
  if (dnsDomainIs(host, ".uses.example")) return forOtherUses(host);
  if (dnsDomainIs(host, ".rounds.example")) return inRounds(host);
  if (dnsDomainIs(host, ".jumps.example")) return byJumps(host);
  if (dnsDomainIs(host, ".jumps2.example")) return byJumpsWrong(host);
  if (dnsDomainIs(host, ".wrong.example")) return wrong(host);
  return backup;
}
