/* The extensions that the module adds to GLib. Each is in a separate file. */
#ifndef PROXYMANAGER_GIO_MODULE_H
#define PROXYMANAGER_GIO_MODULE_H

#include <gio/gio.h>

/** Adds the proxy resolver "proxymanager". */
void proxymanager_resolver_add(GTypeModule* module);

/** Adds the proxy protocol "socks". */
void proxymanager_socks_add(GTypeModule* module);

#endif
