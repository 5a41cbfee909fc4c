/* The proxy that the variables of the environment name, as libproxy reads them. */
#ifndef PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H
#define PROXYMANAGER_CLIENT_LIBPROXY_ENVIRONMENT_H

/** Reads https_proxy or ftp_proxy for URLs of these schemes, and http_proxy for all that have no
 * variable of their own; each in lower case, then in upper case. no_proxy (NO_PROXY) holds, parted
 * by commas: "*"; a host, or a part of its end after "*" or before which a dot stands
 * ("*.example.org", ".example.org"); "<local>", a host without a dot; an address or a range of them
 * (10.0.0.0/8, 10.0.0.0/255.0.0.0, fe80::/10). Each but "*", "<local>" and ranges may end in a
 * port.
 *
 * HTTP_PROXY does not count in a program that serves a web request (REQUEST_METHOD is set): there
 * the client of the web server chooses its value. No variable counts if the program has more rights
 * than its caller.
 * @param url with "://"
 * @return the value, with "http://" before it if it has no scheme, for free(); null if there is
 * none for this URL, and without memory */
char* px_environment_proxy(const char* url);

#endif
