/* Prints what to try for each URL of the command line, in order: a proxy's URL, or "direct://".
 * cc which_proxy.c $(pkg-config --cflags --libs proxymanager-client) -o which_proxy */
#include <proxymanager/client.h>
#include <stdio.h>

enum { LIMIT_MS = 15000 };

int main(int argc, char** argv) {
  proxymanager_client* client = proxymanager_client_new(0);
  int failed = 0;
  for (int i = 1; i < argc; i++) {
    proxymanager_answer* answer = NULL;
    proxymanager_status status = proxymanager_get(client, argv[i], LIMIT_MS, &answer);
    if (status != PROXYMANAGER_OK) {
      fprintf(stderr, "%s: %s\n", argv[i], proxymanager_status_text(status));
      failed = 1;
    }
    for (size_t n = 0; n < proxymanager_answer_count(answer); n++) {
      const proxymanager_entry* entry = proxymanager_answer_entry(answer, n);
      if (entry->kind != PROXYMANAGER_UNUSABLE) puts(entry->url);
    }
    proxymanager_answer_unref(answer);
  }
  proxymanager_client_free(client);
  return failed;
}
