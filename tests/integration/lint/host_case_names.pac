// In most of these lines, the capitals belong to names, classes or escapes and are not letters to match.
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  if (host.match(/^(?<Sub>[a-z]+)\.\k<Sub>\.example$/)) return "DIRECT";
  if (/^\p{Ll}+\P{Lu}\.x$/u.test(host) || /^\u{6A}\x6A\u006A\S$/u.test(host)) return "DIRECT";
  if (/^(?<sub>A)$/.test(host)) return "DIRECT"; // expect: host-case
  if (host != "Printer.example") return "PROXY proxy.corp.example:8080; DIRECT"; // expect: host-case
  return "DIRECT";
}
