/* libproxy.so.1: programs that are linked with libproxy ask the daemon without any change.
 *
 * All factories of a process share one client of libproxymanager-client, which caches answers. So a
 * program that makes a factory for each question does not connect each time. The client has a
 * thread, so the library stays loaded (-z nodelete), even if a program closes it and opens it
 * again. This code holds no lock during a question to the daemon. So a remembered answer never has
 * to wait, and a child process never finds a locked mutex. Questions without a remembered answer
 * wait for each other in the daemon.
 */
#include "client/libproxy/libproxy.h"

#include <dlfcn.h>
#include <proxymanager/client.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "client/libproxy/environment.h"

/* Time limit of a question, in milliseconds. Programs wait 10 s at most; the remaining half second
 * is a reserve for a busy machine. The slowest script takes 5.25 s. */
#define LIMIT_MS 9500

/* The name of a class of libproxy 0.4. Qt looks for this name to detect a library whose calls
 * block. If it finds the name, Qt calls the library on a separate thread and not on the thread of
 * the windows. */
PROXYMANAGER_LIBPROXY_API extern const void* const _ZTVN8libproxy19pacrunner_extensionE[8];
const void* const _ZTVN8libproxy19pacrunner_extensionE[8] = {NULL};

struct px_proxy_factory {
  atomic_uint holders;
};

__attribute__((format(printf, 1, 2))) static void debug(const char* format, ...) {
  if (getenv("PX_DEBUG") == NULL) return;
  char line[512];
  va_list values;
  va_start(values, format);
  vsnprintf(line, sizeof line, format, values);
  va_end(values);
  fprintf(stderr, "libproxy of the proxy manager: %s\n", line);
}

/* --- The process's client --- */

static _Atomic(proxymanager_client*) the_client;

/* Returns the client of the process. Makes a new client if there is none, or if the only client is
 * `useless`. Returns null if memory is exhausted. After fork(), the parent's client remains:
 * freeing it has no effect in the child. */
static proxymanager_client* client_but(proxymanager_client* useless) {
  proxymanager_client* current = atomic_load(&the_client);
  if (current != useless) return current;
  proxymanager_client* const made = proxymanager_client_new(0);
  if (made == NULL) return NULL;
  if (atomic_compare_exchange_strong(&the_client, &current, made)) {
    proxymanager_client_free(useless);
    return made;
  }
  proxymanager_client_free(made);
  return current;
}

static proxymanager_status ask(const char* url, proxymanager_answer** answer) {
  proxymanager_client* client = client_but(NULL);
  if (client == NULL) return PROXYMANAGER_NO_MEMORY;
  proxymanager_status status = proxymanager_get(client, url, LIMIT_MS, answer);
  if (status != PROXYMANAGER_FORKED) return status;
  client = client_but(client);
  if (client == NULL) return PROXYMANAGER_NO_MEMORY;
  return proxymanager_get(client, url, LIMIT_MS, answer);
}

/* --- Answers in libproxy's form --- */

/* Whether `text`, an entry of an answer, begins with "SOCKS" without a version. */
static int names_no_version(const char* text) {
  text += strspn(text, " \t");
  if (!px_equal_ignoring_case(text, "socks", 5)) return 0;
  return strspn(text + 5, "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ") == 0;
}

/* The scheme that programs use for the proxy of `entry`. Null if programs cannot use the proxy.
 * They support only one form of SOCKS 5, in which the proxy resolves host names. */
static const char* scheme_of(const proxymanager_entry* entry) {
  switch (entry->kind) {
    case PROXYMANAGER_DIRECT:
      return "direct";
    case PROXYMANAGER_HTTP:
      return "http";
    case PROXYMANAGER_HTTPS:
      return "https";
    case PROXYMANAGER_SOCKS4:
      return "socks4";
    case PROXYMANAGER_SOCKS4A:
      return "socks4a";
    case PROXYMANAGER_SOCKS5:
    case PROXYMANAGER_SOCKS5H:
      return names_no_version(entry->text) ? "socks" : "socks5";
    case PROXYMANAGER_UNUSABLE:
      break;
  }
  return NULL; /* also for kinds that a later library adds */
}

static char* text_of(const proxymanager_entry* entry) {
  const char* const scheme = scheme_of(entry);
  const char* const rest = strstr(entry->url, "://");
  char* text = NULL;
  if (scheme == NULL || rest == NULL) return NULL;
  return asprintf(&text, "%s%s", scheme, rest) < 0 ? NULL : text;
}

/* The usable entries of `answer` as URLs. Null if there are none, or if memory is exhausted. */
static char** proxies_of(const proxymanager_answer* answer) {
  const size_t count = proxymanager_answer_count(answer);
  char** const proxies = calloc(count + 1, sizeof *proxies);
  if (proxies == NULL) return NULL;
  size_t used = 0;
  for (size_t i = 0; i < count; i++) {
    proxies[used] = text_of(proxymanager_answer_entry(answer, i));
    if (proxies[used] != NULL) used++;
  }
  if (used > 0) return proxies;
  free(proxies);
  return NULL;
}

/* The daemon's proxies. Null if the daemon gives no usable answer; the environment variables then
 * decide. They also decide in mode off, because an unconfigured daemon is in this mode. */
static char** proxies_of_daemon(const char* url, proxymanager_status* status) {
  proxymanager_answer* answer = NULL;
  *status = ask(url, &answer);
  char** proxies = NULL;
  if (*status != PROXYMANAGER_OK) {
    debug("the daemon gives no answer: %s", proxymanager_status_text(*status));
  } else if (strcmp(proxymanager_answer_mode(answer), "off") == 0) {
    debug("the daemon's mode is off");
  } else {
    if (strcmp(proxymanager_answer_mode(answer), "local") == 0)
      debug("this machine and this link are always direct");
    proxies = proxies_of(answer);
    if (proxies == NULL) debug("the daemon's answer has no entry that can be used");
  }
  proxymanager_answer_unref(answer);
  return proxies;
}

/* A list with one text. The list takes ownership of the text. Null if memory is exhausted. */
static char** only(char* text) {
  char** const proxies = text == NULL ? NULL : calloc(2, sizeof *proxies);
  if (proxies == NULL) {
    free(text);
    return NULL;
  }
  proxies[0] = text;
  return proxies;
}

static char** proxies_of_environment(const char* url) {
  char* const proxy = px_environment_proxy(url);
  if (proxy == NULL) return NULL;
  if (!px_equal_ignoring_case(proxy, "pac+", 4) && !px_equal_ignoring_case(proxy, "wpad:", 5)) {
    return only(proxy);
  }
  debug("\"%s\" in the environment is not evaluated: the daemon runs scripts", proxy);
  free(proxy);
  return NULL;
}

/* --- The interface --- */

pxProxyFactory* px_proxy_factory_new(void) {
  pxProxyFactory* const factory = malloc(sizeof *factory);
  if (factory != NULL) atomic_init(&factory->holders, 1);
  return factory;
}

pxProxyFactory* px_proxy_factory_copy(pxProxyFactory* factory) {
  if (factory != NULL) atomic_fetch_add(&factory->holders, 1);
  return factory;
}

void px_proxy_factory_free(pxProxyFactory* factory) {
  if (factory != NULL && atomic_fetch_sub(&factory->holders, 1) == 1) free(factory);
}

static int is_url(const char* text) {
  const char* const scheme_end = text == NULL ? NULL : strstr(text, "://");
  return scheme_end != NULL && scheme_end != text;
}

char** px_proxy_factory_get_proxies(pxProxyFactory* factory, const char* url) {
  (void)factory;
  int cancelling = PTHREAD_CANCEL_ENABLE;
  /* A thread that is cancelled during the call would leave the client library in a broken state. */
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelling);
  proxymanager_status status = PROXYMANAGER_BAD_ARGUMENT;
  char** proxies = NULL;
  if (is_url(url)) {
    proxies = proxies_of_daemon(url, &status);
  } else {
    debug("a text without a scheme is direct");
  }
  if (proxies == NULL && status != PROXYMANAGER_BAD_ARGUMENT) proxies = proxies_of_environment(url);
  if (proxies == NULL) proxies = only(strdup("direct://"));
  pthread_setcancelstate(cancelling, NULL);
  return proxies;
}

void px_proxy_factory_free_proxies(char** proxies) {
  if (proxies == NULL) return;
  for (char** proxy = proxies; *proxy != NULL; proxy++) free(*proxy);
  free(proxies);
}

/* --- GLib's type, for programs that are linked with libproxy 0.5 --- */

static size_t the_type;

/* A program that needs this type has loaded GObject. Other programs do not need GObject, so this
 * library looks for it only here.
 */
static void register_type(void) {
  typedef void* copy_function(void*);
  typedef void free_function(void*);
  typedef size_t register_function(const char*, copy_function*, free_function*);
  void* const object = dlopen("libgobject-2.0.so.0", RTLD_LAZY | RTLD_LOCAL);
  if (object == NULL) return;
  register_function* register_boxed = NULL;
  *(void**)&register_boxed = dlsym(object, "g_boxed_type_register_static"); /* POSIX's own cast */
  if (register_boxed == NULL) return;
  the_type = register_boxed("pxProxyFactory", (copy_function*)px_proxy_factory_copy,
                            (free_function*)px_proxy_factory_free);
}

size_t px_proxy_factory_get_type(void) {
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, register_type);
  return the_type;
}
