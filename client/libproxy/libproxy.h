/* The interface of libproxy.so.1 for programs that are linked with this library.
 *
 * This header is not installed: a program is built with libproxy's own header, and runs with this
 * library instead of libproxy. Any thread may call all functions, and several threads may use the
 * same factory at the same time. No function throws or prints (except with PX_DEBUG, see below),
 * and none changes signals or the environment.
 */
#ifndef PROXYMANAGER_CLIENT_LIBPROXY_LIBPROXY_H
#define PROXYMANAGER_CLIENT_LIBPROXY_LIBPROXY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROXYMANAGER_LIBPROXY_API __attribute__((visibility("default")))

/** The handle of a program. It has no state. */
typedef struct px_proxy_factory pxProxyFactory;

/** Makes no connection. @return a factory, which the caller frees with px_proxy_factory_free();
 * null only if memory is exhausted */
PROXYMANAGER_LIBPROXY_API pxProxyFactory* px_proxy_factory_new(void);

/** Finds the proxies for `url`. If the daemon has an answer, the result is this answer. Else it is
 * the proxy of the environment variables, which this call reads. Else it is "direct://". A null
 * pointer, a URL without a scheme and a URL that the bus cannot carry also get "direct://". The
 * function waits for the daemon for at most 9.5 s.
 *
 * If PX_DEBUG is set, a line on standard error gives the reason for each answer that does not come
 * from the daemon.
 * @return a null-terminated array of at least one text, in the order in which the program tries
 * them: "http://host:1", "https://", "socks://host:1" (version 5, then 4), "socks4://",
 * "socks4a://", "socks5://", or "direct://". The URL of a manual proxy contains the proxy's user
 * name and password. The array and each text come from malloc(); the caller frees them. Null only
 * if memory is exhausted */
PROXYMANAGER_LIBPROXY_API char** px_proxy_factory_get_proxies(pxProxyFactory* factory,
                                                              const char* url);

/** Frees the result of px_proxy_factory_get_proxies(); null does nothing. */
PROXYMANAGER_LIBPROXY_API void px_proxy_factory_free_proxies(char** proxies);

/** Releases a factory; null does nothing. */
PROXYMANAGER_LIBPROXY_API void px_proxy_factory_free(pxProxyFactory* factory);

/** @return the same factory, which must then be freed once more; null if `factory` is null */
PROXYMANAGER_LIBPROXY_API pxProxyFactory* px_proxy_factory_copy(pxProxyFactory* factory);

/** @return GLib's boxed type of a factory; 0 if the process cannot load GObject */
PROXYMANAGER_LIBPROXY_API size_t px_proxy_factory_get_type(void);

#ifdef __cplusplus
}
#endif

#endif
