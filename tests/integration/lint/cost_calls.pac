var list = ["h0-", "h1-", "h2-", "h3-", "h4-", "h5-", "h6-", "h7-", "h8-", "h9-", "h10-", "h11-", "h12-", "h13-", "h14-", "h15-", "h16-", "h17-", "h18-", "h19-", "h20-", "h21-", "h22-", "h23-", "h24-", "h25-", "h26-", "h27-", "h28-", "h29-", "h30-", "h31-", "h32-", "h33-", "h34-", "h35-", "h36-", "h37-", "h38-", "h39-", "h40-", "h41-", "h42-", "h43-", "h44-", "h45-", "h46-", "h47-", "h48-", "h49-", "h50-", "h51-", "h52-", "h53-", "h54-", "h55-", "h56-", "h57-", "h58-", "h59-"];
function FindProxyForURL(url, host) { // expect: cost
  if (isPlainHostName(host)) return "DIRECT";
  for (var i = 0; i < list.length; i++) {
    for (var j = 0; j < 100; j++) {
      if (shExpMatch(host, list[i] + j + ".example")) return "DIRECT";
    }
  }
  return "PROXY proxy.corp.example:8080; DIRECT";
}
