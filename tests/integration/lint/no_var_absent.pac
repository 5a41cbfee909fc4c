var chosen = "PROXY p.corp.example:8080; DIRECT";
let count = 0;
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  var answer = "DIRECT", i;
  for (i = 0; i < 3; i++) answer = chosen;
  for (const name of ["a", "b"]) alert(name);
  try { alert(host); } catch (error) { error = null; }
  count += 1;
  return answer;
}
