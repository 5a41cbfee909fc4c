/*
 * proxy.pac of a company with two sites.
 */
var DIRECT = "DIRECT";
var BERLIN = "PROXY proxy1.berlin.corp.example:3128; PROXY proxy2.berlin.corp.example:3128; DIRECT";
var MUNICH = "PROXY proxy.munich.corp.example:3128; DIRECT";

function isInternal(host) {
  return isPlainHostName(host) ||
      dnsDomainIs(host, ".corp.example") ||
      host == "corp.example" ||
      shExpMatch(host, "*.local");
}

function isPrivateAddress(host) {
  if (!/^\d{1,3}(\.\d{1,3}){3}$/.test(host)) return false;
  return isInNet(host, "10.0.0.0", "255.0.0.0") ||
      isInNet(host, "172.16.0.0", "255.240.0.0") ||
      isInNet(host, "192.168.0.0", "255.255.0.0") ||
      isInNet(host, "127.0.0.0", "255.0.0.0");
}

function FindProxyForURL(url, host) {
  if (isInternal(host) || isPrivateAddress(host)) return DIRECT;

  // Updates come from a mirror at night.
  if (timeRange(22, 23) && dnsDomainIs(host, ".updates.example")) return MUNICH;

  if (url.substring(0, 4) == "ftp:") return MUNICH;
  if (isInNet(myIpAddress(), "10.2.0.0", "255.255.0.0")) return MUNICH;
  return BERLIN;
}
