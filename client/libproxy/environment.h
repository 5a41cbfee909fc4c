/* The proxy from the environment variables, which are read in the same way as by libproxy. */
#ifndef PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H
#define PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H

#include <stddef.h>

/** Reads https_proxy or ftp_proxy for URLs of these schemes. It reads http_proxy for all other
 * URLs, and for these schemes if their own variable is not set. It looks for each variable in lower
 * case, then in upper case. no_proxy (NO_PROXY) is a list that is separated by commas:
 * - "*" for all hosts, "<local>" for hosts without a dot,
 * - a host, or the end of a host ("*.example.org", ".example.org"), with or without a port,
 * - an address with or without a port, or a range (10.0.0.0/8, 10.0.0.0/255.0.0.0, fe80::/10).
 *
 * HTTP_PROXY is ignored in a program that serves a web request (REQUEST_METHOD is set), because the
 * client of the web server chooses its value. All variables are ignored if the program has more
 * rights than its caller.
 * @param url with "://"
 * @return the value, with "http://" added if it has no scheme, for free(); null if there is no
 * proxy for this URL, or if memory is exhausted */
char* px_environment_proxy(const char* url);

/** Whether the first `most` characters of two texts are equal if the case of ASCII letters is
 * ignored, or the whole texts if they are shorter. The program's locale has no effect. */
int px_equal_ignoring_case(const char* a, const char* b, size_t most);

#endif
