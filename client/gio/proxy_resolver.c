/* The proxy resolver for programs that use GLib. With it, such programs ask the daemon without any
 * change.
 *
 * GLib loads this module when a program first looks for a proxy. From then on GLib asks the module
 * before every connection. So the module uses libproxymanager-client, which remembers answers. The
 * process has one client of this library. The client has a thread, so the module is never unloaded.
 *
 * If there is no bus or no daemon, or if the mode is off, GLib's next resolver is asked: the
 * desktop's own settings then apply. In every other case without an answer, the program connects
 * directly: if the daemon is too slow, if the script has no answer, or if no entry of the answer is
 * an address. The alternative would be that the resolver fails. Then every connection of every
 * program would fail, and a device without a bus would have no network. If a network permits only
 * connections through its proxy, it refuses direct connections itself. An administrator who wants
 * programs to fail in these cases sets the variable PROXYMANAGER_NO_ANSWER=refuse in their
 * environment. G_MESSAGES_DEBUG=proxymanager shows the reasons.
 *
 * The library itself answers "direct" for this machine and this link, in every mode. So a program's
 * traffic to local services never goes through a script's proxy.
 */
#include <errno.h>
#include <proxymanager/client.h>
#include <semaphore.h>
#include <string.h>

#include "client/gio/module.h"

/* This priority is higher than the priorities of the resolvers of GLib and of desktops, which are
 * all below 100. A person who installs this module wants GLib to ask the daemon.
 * GIO_USE_PROXY_RESOLVER can name another resolver. */
#define PRIORITY 100

/* Time limit of a question, in milliseconds. An evaluation takes 5.25 s at most, including the
 * start of a new worker. The remaining time is for questions that wait before this question. */
#define LIMIT_MS 10000

typedef struct {
  GObject parent;
} ProxymanagerResolver;

typedef struct {
  GObjectClass parent;
} ProxymanagerResolverClass;

static void implement_resolver(GProxyResolverInterface* interface);
static GType proxymanager_resolver_get_type(void);

G_DEFINE_DYNAMIC_TYPE_EXTENDED(ProxymanagerResolver, proxymanager_resolver, G_TYPE_OBJECT, 0,
                               G_IMPLEMENT_INTERFACE_DYNAMIC(G_TYPE_PROXY_RESOLVER,
                                                             implement_resolver))

/* --- The process's client --- */

static proxymanager_client* the_client;

/* Returns the client of the process. Makes a new client if there is none, or if the only client is
 * `useless`. Returns null if memory is exhausted. After fork(), the parent's client remains:
 * freeing it has no effect in the child. */
static proxymanager_client* client_but(proxymanager_client* useless) {
  proxymanager_client* const current = g_atomic_pointer_get(&the_client);
  if (current != useless) return current;
  proxymanager_client* const made = proxymanager_client_new(0);
  if (made == NULL) return NULL;
  if (g_atomic_pointer_compare_and_exchange(&the_client, useless, made)) {
    proxymanager_client_free(useless);
    return made;
  }
  proxymanager_client_free(made);
  return g_atomic_pointer_get(&the_client);
}

/* A question that can be cancelled. */
typedef struct {
  proxymanager_client* client;
  proxymanager_id id; /* 0 if the question has been answered */
} Question;

static proxymanager_status ask(const char* uri, proxymanager_answer_callback callback,
                               void* context, Question* question) {
  question->client = client_but(NULL);
  if (question->client == NULL) return PROXYMANAGER_NO_MEMORY;
  proxymanager_status status =
      proxymanager_get_async(question->client, uri, LIMIT_MS, callback, context, &question->id);
  if (status != PROXYMANAGER_FORKED) return status;
  question->client = client_but(question->client);
  if (question->client == NULL) return PROXYMANAGER_NO_MEMORY;
  return proxymanager_get_async(question->client, uri, LIMIT_MS, callback, context, &question->id);
}

/* --- Answers in GLib's form --- */

/* Whether `text`, an entry of an answer, begins with "SOCKS" without a version. */
static gboolean names_no_version(const char* text) {
  while (g_ascii_isspace(*text)) text++;
  return g_ascii_strncasecmp(text, "socks", 5) == 0 && !g_ascii_isalnum(text[5]);
}

/* Whether this process is the desktop portal. It passes its answers to programs in sandboxes. These
 * programs do not have this module's protocol "socks", so they would skip an entry with "socks". */
static gboolean answers_for_sandboxes(void) {
  const char* const name = g_get_prgname();
  return name != NULL && g_str_has_suffix(name, "xdg-desktop-portal");
}

/* GLib's scheme for the proxy of `entry`; null if GLib cannot use the proxy. GLib has only one form
 * of SOCKS 5, in which the proxy looks up host names. */
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
      return names_no_version(entry->text) && !answers_for_sandboxes() ? "socks" : "socks5";
    case PROXYMANAGER_UNUSABLE:
      break;
  }
  return NULL; /* also for kinds that a later library adds */
}

/* Returns a list with one element, a copy of `text`. */
static char** only(const char* text) {
  char** const list = g_new0(char*, 2);
  list[0] = g_strdup(text);
  return list;
}

static gboolean must_refuse(void) {
  return g_strcmp0(g_getenv("PROXYMANAGER_NO_ANSWER"), "refuse") == 0;
}

/* The result for a connection if there is no usable answer: "direct", or null with `error`. */
static char** without_answer(const char* reason, GError** error) {
  if (must_refuse()) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_PROXY_FAILED, "no proxy is known: %s", reason);
    return NULL;
  }
  g_debug("directly: %s", reason);
  return only("direct://");
}

/* --- The next resolver --- */

/* The first of GLib's other resolvers that works in this process; null if there is none. GLib's own
 * resolver "dummy" always answers "direct". */
static GProxyResolver* find_next(void) {
  GIOExtensionPoint* const point =
      g_io_extension_point_lookup(G_PROXY_RESOLVER_EXTENSION_POINT_NAME);
  if (point == NULL) return NULL;
  for (GList* at = g_io_extension_point_get_extensions(point); at != NULL; at = at->next) {
    GIOExtension* const extension = at->data;
    const GType type = g_io_extension_get_type(extension);
    if (type == proxymanager_resolver_get_type()) continue;
    if (strcmp(g_io_extension_get_name(extension), "dummy") == 0) continue;
    GProxyResolver* const resolver = g_object_new(type, NULL);
    if (g_proxy_resolver_is_supported(resolver)) return resolver;
    g_object_unref(resolver);
  }
  return NULL;
}

static GProxyResolver* next_resolver(void) {
  static gsize is_found;
  static GProxyResolver* next;
  if (g_once_init_enter(&is_found)) {
    next = find_next();
    g_once_init_leave(&is_found, 1);
  }
  return next;
}

/* Whether another resolver should answer. If a program may not read the configuration, it cannot
 * distinguish "off" from "not configured yet". */
static gboolean is_for_others(proxymanager_status status, const proxymanager_answer* answer) {
  if (status == PROXYMANAGER_OK) return strcmp(proxymanager_answer_mode(answer), "off") == 0;
  if (must_refuse()) return FALSE;
  return status == PROXYMANAGER_NO_BUS || status == PROXYMANAGER_NO_DAEMON;
}

/* Whether the URI has the form that GLib uses for a connection without a known protocol. Such a
 * connection cannot use an HTTP proxy; it can use only SOCKS. */
static gboolean names_no_protocol(const char* uri) {
  return g_ascii_strncasecmp(uri, "none://", strlen("none://")) == 0;
}

static char** proxies_of(const proxymanager_answer* answer, const char* uri, GError** error) {
  const gboolean any_protocol = names_no_protocol(uri);
  const size_t count = proxymanager_answer_count(answer);
  char** const proxies = g_new0(char*, count + 1);
  size_t used = 0;
  for (size_t i = 0; i < count; i++) {
    const proxymanager_entry* const entry = proxymanager_answer_entry(answer, i);
    const char* const scheme = scheme_of(entry);
    const char* const rest = strstr(entry->url, "://");
    if (scheme == NULL || rest == NULL) continue;
    if (any_protocol && g_str_has_prefix(scheme, "http")) continue;
    proxies[used++] = g_strconcat(scheme, rest, NULL);
  }
  if (used > 0) return proxies;
  g_strfreev(proxies);
  return without_answer("the answer has no entry that can be used", error);
}

/* The result of a question that was not cancelled; null with `error` if the text is not a URI. */
static char** outcome(proxymanager_status status, const proxymanager_answer* answer,
                      const char* uri, GError** error) {
  if (status == PROXYMANAGER_OK) return proxies_of(answer, uri, error);
  if (status != PROXYMANAGER_BAD_ARGUMENT) {
    return without_answer(proxymanager_status_text(status), error);
  }
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT,
                      proxymanager_status_text(status));
  return NULL;
}

/* --- Cancelling --- */

static void on_cancelled(GCancellable* cancellable, gpointer data) {
  (void)cancellable;
  const Question* const question = data;
  proxymanager_cancel(question->client, question->id);
}

static void free_question(gpointer data, GClosure* closure) {
  (void)closure;
  g_free(data);
}

/* The signal handler by which a GCancellable cancels a question. */
typedef struct {
  GCancellable* cancellable;
  gulong handler;
} Watch;

/* Begins the watch. If the cancellable is already cancelled, the question is cancelled at once. The
 * handler has its own copy of the question, because the handler may still run when the watch has
 * ended. */
static void begin_watch(Watch* watch, GCancellable* cancellable, const Question* question) {
  if (cancellable == NULL || question->id == 0) return;
  watch->cancellable = g_object_ref(cancellable);
  watch->handler = g_signal_connect_data(cancellable, "cancelled", G_CALLBACK(on_cancelled),
                                         g_memdup2(question, sizeof *question), free_question, 0);
  if (g_cancellable_is_cancelled(cancellable)) {
    proxymanager_cancel(question->client, question->id);
  }
}

/* g_cancellable_disconnect() is not used, because it would also wait for handlers of other code. */
static void end_watch(Watch* watch) {
  if (watch->cancellable == NULL) return;
  g_signal_handler_disconnect(watch->cancellable, watch->handler);
  g_object_unref(watch->cancellable);
}

/* --- The interface --- */

static gboolean is_supported(GProxyResolver* resolver) {
  (void)resolver;
  return TRUE; /* GLib asks only once, and the daemon may start later */
}

/* A waiting caller. It uses a semaphore, because a semaphore may be freed as soon as the wait is
 * over. */
typedef struct {
  sem_t answered;
  proxymanager_status status;
  proxymanager_answer* answer;
} Wait;

static void wake(proxymanager_status status, proxymanager_answer* answer, void* context) {
  Wait* const wait = context;
  wait->status = status;
  wait->answer = answer;
  sem_post(&wait->answered);
}

/* Waits for the library, not for a main context. A cancellation ends the question and so also the
 * wait.
 */
static char** lookup(GProxyResolver* resolver, const char* uri, GCancellable* cancellable,
                     GError** error) {
  (void)resolver;
  if (g_cancellable_set_error_if_cancelled(cancellable, error)) return NULL;
  Wait wait = {.answer = NULL};
  sem_init(&wait.answered, 0, 0);
  Question question = {NULL, 0};
  const proxymanager_status asked = ask(uri, wake, &wait, &question);
  if (asked == PROXYMANAGER_OK) {
    Watch watch = {NULL, 0};
    begin_watch(&watch, cancellable, &question);
    while (sem_wait(&wait.answered) != 0 && errno == EINTR) continue;
    end_watch(&watch);
  } else {
    wait.status = asked;
  }
  sem_destroy(&wait.answered);
  char** proxies = NULL;
  if (!g_cancellable_set_error_if_cancelled(cancellable, error)) {
    GProxyResolver* const next = is_for_others(wait.status, wait.answer) ? next_resolver() : NULL;
    proxies = next != NULL ? g_proxy_resolver_lookup(next, uri, cancellable, error)
                           : outcome(wait.status, wait.answer, uri, error);
  }
  proxymanager_answer_unref(wait.answer);
  return proxies;
}

/* The data of a task; freed together with the task. */
typedef struct {
  char* uri;
  Watch watch;
} Lookup;

static void free_lookup(gpointer data) {
  Lookup* const lookup = data;
  end_watch(&lookup->watch);
  g_free(lookup->uri);
  g_free(lookup);
}

/* Runs on a thread of the task, because the client's thread must answer other questions. */
static void ask_next(GTask* task, gpointer resolver, gpointer data, GCancellable* cancellable) {
  (void)resolver;
  const Lookup* const lookup = data;
  GError* error = NULL;
  char** const proxies = g_proxy_resolver_lookup(next_resolver(), lookup->uri, cancellable, &error);
  if (proxies != NULL) {
    g_task_return_pointer(task, proxies, (GDestroyNotify)g_strfreev);
  } else {
    g_task_return_error(task, error);
  }
}

/* Ends the task, and takes over the caller's reference to it. The task calls its callback in its
 * own main context. If its cancellable is cancelled, the callback gets G_IO_ERROR_CANCELLED. */
static void end_task(proxymanager_status status, proxymanager_answer* answer, void* context) {
  GTask* const task = context;
  if (is_for_others(status, answer) && next_resolver() != NULL) {
    g_task_run_in_thread(task, ask_next);
  } else if (!g_task_return_error_if_cancelled(task)) {
    GError* error = NULL;
    const Lookup* const lookup = g_task_get_task_data(task);
    char** const proxies = outcome(status, answer, lookup->uri, &error);
    if (proxies != NULL) {
      g_task_return_pointer(task, proxies, (GDestroyNotify)g_strfreev);
    } else {
      g_task_return_error(task, error);
    }
  }
  proxymanager_answer_unref(answer);
  g_object_unref(task);
}

static void lookup_async(GProxyResolver* resolver, const char* uri, GCancellable* cancellable,
                         GAsyncReadyCallback callback, gpointer data) {
  GTask* const task = g_task_new(resolver, cancellable, callback, data);
  if (!g_task_return_error_if_cancelled(task)) {
    Lookup* const lookup = g_new0(Lookup, 1);
    lookup->uri = g_strdup(uri);
    g_task_set_task_data(task, lookup, free_lookup);
    Question question = {NULL, 0};
    const proxymanager_status asked = ask(uri, end_task, g_object_ref(task), &question);
    if (asked == PROXYMANAGER_OK) {
      begin_watch(&lookup->watch, cancellable, &question);
    } else {
      end_task(asked, NULL, task);
    }
  }
  g_object_unref(task);
}

static char** lookup_finish(GProxyResolver* resolver, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, resolver), NULL);
  return g_task_propagate_pointer(G_TASK(result), error);
}

static void implement_resolver(GProxyResolverInterface* interface) {
  interface->is_supported = is_supported;
  interface->lookup = lookup;
  interface->lookup_async = lookup_async;
  interface->lookup_finish = lookup_finish;
}

static void proxymanager_resolver_init(ProxymanagerResolver* resolver) {
  (void)resolver;
}

static void proxymanager_resolver_class_init(ProxymanagerResolverClass* class) {
  (void)class;
}

static void proxymanager_resolver_class_finalize(ProxymanagerResolverClass* class) {
  (void)class;
}

void proxymanager_resolver_add(GTypeModule* module) {
  proxymanager_resolver_register_type(module);
  g_io_extension_point_implement(G_PROXY_RESOLVER_EXTENSION_POINT_NAME,
                                 proxymanager_resolver_get_type(), "proxymanager", PRIORITY);
}
