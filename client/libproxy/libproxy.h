/* The interface of libproxy.so.1, as programs that are linked with it call it.
 *
 * No header is installed: a program is built with the header of libproxy itself, and runs with this
 * library in its place. All functions may be called from any thread, also on one factory at the
 * same time. None throws, prints (but see PX_DEBUG below), changes a signal or the environment.
 */
#ifndef PROXYMANAGER_CLIENT_LIBPROXY_LIBPROXY_H
#define PROXYMANAGER_CLIENT_LIBPROXY_LIBPROXY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROXYMANAGER_LIBPROXY_API __attribute__((visibility("default")))

/** What a program holds; it has no state of its own. */
typedef struct px_proxy_factory pxProxyFactory;

/** @return a factory for px_proxy_factory_free(); null only without memory. Nothing is connected */
PROXYMANAGER_LIBPROXY_API pxProxyFactory* px_proxy_factory_new(void);

/** Finds the proxies for `url`: those of the daemon, if it has an answer; else those of the
 * environment, which is read by this call; else "direct://". A URL without a scheme, a null one and
 * one that the bus does not carry get "direct://". Waits for the daemon, at most 9.5 s.
 *
 * If PX_DEBUG is set, a line on standard error gives the reason for each answer that is not the
 * daemon's.
 * @return a null-terminated array, in the order to be tried, of at least one text: "http://host:1",
 * "socks://host:1" (version 5, then 4), "socks4://", "socks4a://", "socks5://", "https://" with a
 * user name and password where a manual proxy has them, or "direct://". The array and each text are
 * blocks of malloc() that the caller frees. Null only without memory */
PROXYMANAGER_LIBPROXY_API char** px_proxy_factory_get_proxies(pxProxyFactory* factory,
                                                              const char* url);

/** Frees what px_proxy_factory_get_proxies() returned; null does nothing. */
PROXYMANAGER_LIBPROXY_API void px_proxy_factory_free_proxies(char** proxies);

/** Gives a factory back; null does nothing. */
PROXYMANAGER_LIBPROXY_API void px_proxy_factory_free(pxProxyFactory* factory);

/** @return the same factory, once more to be freed; null for null */
PROXYMANAGER_LIBPROXY_API pxProxyFactory* px_proxy_factory_copy(pxProxyFactory* factory);

/** @return GLib's boxed type of a factory; 0 if the process cannot load GObject */
PROXYMANAGER_LIBPROXY_API size_t px_proxy_factory_get_type(void);

#ifdef __cplusplus
}
#endif

#endif
