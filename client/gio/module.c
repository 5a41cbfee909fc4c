/* The functions that GLib looks for in the file libgioproxymanager.so. The file exports nothing
 * else. */
#include "client/gio/module.h"

G_MODULE_EXPORT void g_io_proxymanager_load(GIOModule* module);
G_MODULE_EXPORT void g_io_proxymanager_unload(GIOModule* module);
G_MODULE_EXPORT char** g_io_proxymanager_query(void);

void g_io_proxymanager_load(GIOModule* module) {
  g_type_module_use(G_TYPE_MODULE(module)); /* never released: a thread may run in the library */
  proxymanager_resolver_add(G_TYPE_MODULE(module));
  proxymanager_socks_add(G_TYPE_MODULE(module));
}

void g_io_proxymanager_unload(GIOModule* module) {
  (void)module;
}

/* GLib stores this list in its cache. The cache shows GLib when to load the module. */
char** g_io_proxymanager_query(void) {
  return g_strsplit(G_PROXY_RESOLVER_EXTENSION_POINT_NAME "," G_PROXY_EXTENSION_POINT_NAME, ",",
                    -1);
}
