function FindProxyForURL(url, host)
{
    // Resolves everything first, as many old scripts do.
    var ip = dnsResolve(host);                                   // expect: dns-first
    if (isPlainHostName(host) ||
        dnsDomainIs(host, "corp.example") ||                     // expect: domain-dot
        localHostOrDomainIs(host, "www.corp.example") ||
        isInNet(ip, "192.168.0.0", "255.255.0.0"))
        return "DIRECT";
    else if (url.substring(0, 5) == "http:")
        return "PROXY proxy:80; SOCKS proxy:1080";               // expect: direct-missing
    else if (url.substring(0, 6) == "https:")
        return "PROXY proxy";                                    // expect: direct-missing, entry-port
    else
        return "DIRECT; PROXY proxy:80";                         // expect: direct-first
}
