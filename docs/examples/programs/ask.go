// Fetches URLs, each through the daemon's proxy for this URL. It needs github.com/godbus/dbus.
package main

import (
	"context"
	"fmt"
	"io"
	"net"
	"net/http"
	"net/url"
	"os"
	"strings"
	"time"

	"github.com/godbus/dbus"
)

const limit = 10 * time.Second // of a question

// proxyOf is a function for http.Transport, which calls it for each request, also after a redirect.
func proxyOf(request *http.Request) (*url.URL, error) {
	if isHere(request.URL.Hostname()) {
		return nil, nil
	}
	bus, err := dbus.SystemBus() // one connection for the whole process
	if err != nil {
		return http.ProxyFromEnvironment(request)
	}
	asked := url.URL{Scheme: request.URL.Scheme, Host: request.URL.Host, Path: "/"}
	if asked.Scheme == "http" {
		asked.Path, asked.RawQuery = request.URL.Path, request.URL.RawQuery
	}
	waits, end := context.WithTimeout(request.Context(), limit)
	defer end()
	var answer []string // the mode, then the entries
	service := bus.Object("com.zentu.ProxyManagerService", "/com/zentu/ProxyManagerService")
	err = service.CallWithContext(waits, "com.zentu.ProxyManagerServiceInterface.getProxyurl", 0,
		asked.String()).Store(&answer)
	if err != nil || len(answer) < 2 || answer[0] == "off" {
		return http.ProxyFromEnvironment(request)
	}
	switch kind, host, _ := strings.Cut(answer[1], " "); kind { // Go tries only one proxy
	case "DIRECT", "":
		return nil, nil
	case "PROXY":
		return proxyAt("http://" + host)
	case "SOCKS":
		return proxyAt("socks5://" + host)
	default: // mode manual
		return proxyAt(answer[1])
	}
}

// proxyAt reads a URL, or "host:port".
func proxyAt(text string) (*url.URL, error) {
	if !strings.Contains(text, "://") {
		text = "http://" + text
	}
	proxy, err := url.Parse(text)
	if err != nil {
		return nil, err
	}
	switch proxy.Scheme {
	case "http", "https", "socks5":
		return proxy, nil
	case "socks", "socks5h":
		proxy.Scheme = "socks5" // in Go, the proxy then resolves host names
		return proxy, nil
	}
	return nil, fmt.Errorf("%s: Go has no %s", proxy.Redacted(), proxy.Scheme)
}

// isHere reports whether the host is this machine or on this link: no proxy can reach it.
func isHere(host string) bool {
	ip := net.ParseIP(host)
	return host == "localhost" || strings.HasSuffix(host, ".localhost") ||
		ip != nil && (ip.IsLoopback() || ip.IsLinkLocalUnicast() || ip.IsUnspecified())
}

func main() {
	http.DefaultTransport.(*http.Transport).Proxy = proxyOf
	for _, address := range os.Args[1:] {
		response, err := http.Get(address)
		if err != nil {
			fmt.Fprintln(os.Stderr, err)
			os.Exit(1)
		}
		io.Copy(os.Stdout, response.Body)
		response.Body.Close()
	}
}
