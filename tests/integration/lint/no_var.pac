function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || host == "localhost") return "DIRECT";
  proxy = "PROXY p.corp.example:8080; DIRECT"; // expect: no-var
  for (i = 0; i < 3; i++) alert(i); // expect: no-var
  return proxy;
}
