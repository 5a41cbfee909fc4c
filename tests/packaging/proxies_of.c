/* Prints the proxies of a URL, as GLib's networking would try them. usage: proxies_of URL */
#include <gio/gio.h>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  g_auto(GStrv) proxies =
      g_proxy_resolver_lookup(g_proxy_resolver_get_default(), argv[1], NULL, NULL);
  for (char** proxy = proxies; proxy != NULL && *proxy != NULL; proxy++) g_print("%s\n", *proxy);
  return proxies == NULL;
}
