# With this file, programs that a login shell starts use the relay of the proxy manager,
# proxymanager-relay(8). "proxymanagerctl relay disable" removes this file.
http_proxy=http://127.0.0.1:3128
https_proxy=$http_proxy
all_proxy=$http_proxy
# Programs connect directly to this machine and this link.
no_proxy=localhost,.localhost,127.0.0.1,::1,127.0.0.0/8,0.0.0.0,169.254.0.0/16,fe80::/10
HTTP_PROXY=$http_proxy
HTTPS_PROXY=$http_proxy
ALL_PROXY=$http_proxy
NO_PROXY=$no_proxy
export http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY
