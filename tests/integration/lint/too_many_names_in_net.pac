var names = [
  "n0.corp.example", "n1.corp.example", "n2.corp.example",
  "n3.corp.example", "n4.corp.example", "n5.corp.example",
  "n6.corp.example", "n7.corp.example", "n8.corp.example",
  "n9.corp.example", "n10.corp.example", "n11.corp.example",
  "n12.corp.example", "n13.corp.example", "n14.corp.example",
  "n15.corp.example", "n16.corp.example", "n17.corp.example",
  "n18.corp.example", "n19.corp.example", "n20.corp.example"
];

function FindProxyForURL(url, host) { // expect: too-many-names
  if (isPlainHostName(host)) return "DIRECT";
  for (var i = 0; i < names.length; i++) {
    if (isInNet(names[i], "192.168.0.0", "255.255.0.0")) return "DIRECT"; // expect: isinnet-name
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
