/* The proxy protocol "socks": SOCKS without a version.
 *
 * If a script returns "SOCKS host", a resolver passes it on as "socks://host". GLib has protocols
 * for the versions 4, 4a and 5, each with its own name, but none with the name "socks". Here
 * "socks" means version 5 with names that the proxy looks up: most proxies use this version today,
 * and proxymanagerctl reads "SOCKS" in the same way. To try one version after the other, a program
 * would need a connection for each version.
 */
#include "client/gio/module.h"

typedef struct {
  GObject parent;
} ProxymanagerSocks;

typedef struct {
  GObjectClass parent;
} ProxymanagerSocksClass;

static void implement_proxy(GProxyInterface* interface);
static GType proxymanager_socks_get_type(void);

G_DEFINE_DYNAMIC_TYPE_EXTENDED(ProxymanagerSocks, proxymanager_socks, G_TYPE_OBJECT, 0,
                               G_IMPLEMENT_INTERFACE_DYNAMIC(G_TYPE_PROXY, implement_proxy))

/* GLib's own implementation, which is always available. */
static GProxy* version_5(void) {
  return g_proxy_get_default_for_protocol("socks5");
}

static GIOStream* connect_now(GProxy* proxy, GIOStream* stream, GProxyAddress* address,
                              GCancellable* cancellable, GError** error) {
  (void)proxy;
  g_autoptr(GProxy) real = version_5();
  return g_proxy_connect(real, stream, address, cancellable, error);
}

static void on_connected(GObject* real, GAsyncResult* result, gpointer data) {
  g_autoptr(GTask) task = data;
  GError* error = NULL;
  GIOStream* const stream = g_proxy_connect_finish(G_PROXY(real), result, &error);
  if (stream != NULL) {
    g_task_return_pointer(task, stream, g_object_unref);
  } else {
    g_task_return_error(task, error);
  }
}

static void connect_async(GProxy* proxy, GIOStream* stream, GProxyAddress* address,
                          GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
  GTask* const task = g_task_new(proxy, cancellable, callback, data);
  g_autoptr(GProxy) real = version_5();
  g_proxy_connect_async(real, stream, address, cancellable, on_connected, task);
}

static GIOStream* connect_finish(GProxy* proxy, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, proxy), NULL);
  return g_task_propagate_pointer(G_TASK(result), error);
}

static gboolean supports_hostname(GProxy* proxy) {
  (void)proxy;
  g_autoptr(GProxy) real = version_5();
  return g_proxy_supports_hostname(real);
}

static void implement_proxy(GProxyInterface* interface) {
  interface->connect = connect_now;
  interface->connect_async = connect_async;
  interface->connect_finish = connect_finish;
  interface->supports_hostname = supports_hostname;
}

static void proxymanager_socks_init(ProxymanagerSocks* socks) {
  (void)socks;
}

static void proxymanager_socks_class_init(ProxymanagerSocksClass* class) {
  (void)class;
}

static void proxymanager_socks_class_finalize(ProxymanagerSocksClass* class) {
  (void)class;
}

void proxymanager_socks_add(GTypeModule* module) {
  proxymanager_socks_register_type(module);
  g_io_extension_point_implement(G_PROXY_EXTENSION_POINT_NAME, proxymanager_socks_get_type(),
                                 "socks", 0);
}
