/* The proxy from the environment variables. They are read in the same way as libproxy reads
 * them. */
#ifndef PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H
#define PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H

#include <stddef.h>

/** Reads https_proxy or ftp_proxy for URLs of these schemes. Reads http_proxy for all other URLs,
 * and for https and ftp if their own variable is not set. Looks for each variable in lower case,
 * then in upper case. no_proxy (NO_PROXY) is a list with commas between its elements:
 * - "*" for all hosts, "<local>" for hosts without a dot,
 * - a host, or the end of a host ("*.example.org", ".example.org"), with or without a port,
 * - an address with or without a port, or a range (10.0.0.0/8, 10.0.0.0/255.0.0.0, fe80::/10).
 *
 * In a program that serves a web request (REQUEST_METHOD is set), HTTP_PROXY is ignored, because
 * the client of the web server can choose its value. If the program has more rights than its
 * caller, all variables are ignored.
 * @param url with "://"
 * @return the proxy, with "http://" added if its value has no scheme; the caller frees it with
 * free(). Null if there is no proxy for this URL, or if memory is exhausted */
char* px_environment_proxy(const char* url);

/** Whether two texts are equal. Only the first `most` characters of each are compared, and the case
 * of ASCII letters is ignored. The program's locale has no effect. */
int px_equal_ignoring_case(const char* a, const char* b, size_t most);

#endif
