/* Asks the device's proxy manager which proxy to use for a URL.
 *
 *   proxymanager_client *client = proxymanager_client_new(0);
 *   proxymanager_answer *answer = NULL;
 *   if (proxymanager_get(client, "http://www.example.org/", 5000, &answer) == PROXYMANAGER_OK) {
 *     for (size_t i = 0; i < proxymanager_answer_count(answer); i++)
 *       puts(proxymanager_answer_entry(answer, i)->url);
 *   }
 *   proxymanager_answer_unref(answer);
 *   proxymanager_client_free(client);
 *
 * A client keeps one connection to the system message bus, on its own thread. It starts this thread
 * with the first question. The client also remembers answers: a repeated question needs no call on
 * the bus. All remembered answers become invalid when the daemon reports a change, starts or ends.
 * If the daemon or the bus ends, the client connects again by itself when both run again. Until
 * then, each question ends with PROXYMANAGER_NO_DAEMON or PROXYMANAGER_NO_BUS.
 *
 * Threads: all functions may be called from any thread; several threads may use one client.
 * Callbacks run on the client's thread, one at a time. Some functions run a callback during their
 * own call; the descriptions of these functions state this. A callback should be short: until it
 * returns, further answers wait, and so does the report that remembered answers have changed. If a
 * callback takes half a minute while a connection is being set up, the connection can fail with
 * PROXYMANAGER_DENIED. A callback may call every function except proxymanager_client_free(). In a
 * callback proxymanager_get() returns PROXYMANAGER_BUSY if it would have to wait. Do not call
 * pthread_cancel() for a thread that waits in proxymanager_get().
 *
 * Processes: after fork(), a client still belongs to the parent process; the library compares
 * process ids. In the child process, questions return PROXYMANAGER_FORKED, and
 * proxymanager_client_free() does nothing: a thread of the parent may have been changing the client
 * at the moment of the fork. exec closes the descriptors.
 *
 * Texts are UTF-8 without NUL, as the bus requires, and without Unicode's noncharacters. The
 * library does not write to standard output, standard error or syslog. It does not change the
 * handling of signals or the environment. If DBUS_SYSTEM_BUS_ADDRESS is set when the client is
 * made, it names the bus, unless the program has more rights than its caller.
 */
#ifndef PROXYMANAGER_CLIENT_H
#define PROXYMANAGER_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PROXYMANAGER_API __attribute__((visibility("default")))
#else
#define PROXYMANAGER_API
#endif

/** A client: its connection to the bus and the answers that it remembers. */
typedef struct proxymanager_client proxymanager_client;

/** The daemon's answer for one URL. An answer never changes, and several threads may use it. */
typedef struct proxymanager_answer proxymanager_answer;

/** How a question ended. In later releases, the numbers keep their meaning, and there may be more
 * of them. */
typedef enum proxymanager_status {
  PROXYMANAGER_OK = 0,
  PROXYMANAGER_NO_BUS = 1, /**< no message bus; or the connection ended; or the bus sent nothing for
                              10 s while the connection was made */
  PROXYMANAGER_NO_DAEMON = 2, /**< the daemon does not run, has ended, or is about to end */
  PROXYMANAGER_DENIED = 3,    /**< the bus does not allow this program to ask */
  PROXYMANAGER_TOO_SLOW = 4,  /**< no answer within the limit */
  PROXYMANAGER_BAD_REPLY = 5, /**< a reply that is not a valid reply of the daemon */
  PROXYMANAGER_CANCELLED = 6, /**< the program cancelled the question or freed the client */
  /** a null pointer; a URL that is too long, not UTF-8 or without a valid scheme before its "://";
   * a text without "://" that has an "@" after the first "/", "?" or "#" */
  PROXYMANAGER_BAD_ARGUMENT = 7,
  PROXYMANAGER_NO_MEMORY = 8, /**< no memory, descriptor or thread is available */
  PROXYMANAGER_BUSY = 9, /**< too many questions at once, in the client or on the bus; or a callback
                            would have to wait */
  PROXYMANAGER_FORKED = 10,   /**< the client belongs to the parent of this process */
  PROXYMANAGER_NO_ANSWER = 11 /**< the answer has no usable entry (see PROXYMANAGER_REFUSE) */
} proxymanager_status;

/** How a program uses an entry. */
typedef enum proxymanager_kind {
  PROXYMANAGER_UNUSABLE = 0, /**< not understood: only `text` is set; try the next entry */
  PROXYMANAGER_DIRECT = 1,   /**< connect without a proxy */
  PROXYMANAGER_HTTP = 2,     /**< an HTTP proxy */
  PROXYMANAGER_HTTPS = 3,    /**< an HTTP proxy; the connection to the proxy uses TLS */
  PROXYMANAGER_SOCKS4 = 4,
  PROXYMANAGER_SOCKS4A = 5,
  PROXYMANAGER_SOCKS5 = 6, /**< the program looks up host names */
  PROXYMANAGER_SOCKS5H = 7 /**< the proxy looks up host names */
} proxymanager_kind;

/** One way to connect. No member is null; a text without a value is empty. */
typedef struct proxymanager_entry {
  proxymanager_kind kind;
  const char* text;        /**< the daemon's text: "PROXY cache.example.org:8080" */
  const char* url;         /**< "http://cache.example.org:8080"; "direct://"; empty if unusable */
  const char* scheme;      /**< the scheme of `url`: "http", "https", "socks4", "socks4a", "socks5",
                                "socks5h", "direct" */
  const char* credentials; /**< "user:password" of a manual proxy, percent-encoded; part of `url` */
  const char* host;        /**< a name, an IPv4 address, or an IPv6 address in brackets */
  uint16_t port;           /**< in host order; 0 without a proxy */
} proxymanager_entry;

/** A change that proxymanager_watch() reports. */
typedef enum proxymanager_change {
  PROXYMANAGER_ANSWERS_CHANGED = 1, /**< ask again: earlier answers may be wrong now */
  PROXYMANAGER_DAEMON_CAME = 2,     /**< the daemon runs (again); earlier answers are stale */
  PROXYMANAGER_DAEMON_WENT = 3      /**< the daemon or the bus has ended */
} proxymanager_change;

/** More about a question that did not end with PROXYMANAGER_OK, for a log line. The name and the
 * text come unchanged from the bus, or from the owner of the daemon's bus name. They may contain
 * any characters. */
typedef struct proxymanager_failure {
  proxymanager_status status;
  int error; /**< errno if there was no connection to the bus, else 0. ETIMEDOUT: the connection was
                not ready within the limit, or the bus sent nothing for 10 s */
  const char* name; /**< the error's name on the bus, such as
                       "org.freedesktop.DBus.Error.AccessDenied"; empty if the bus sent no error */
  const char* text; /**< the error's text on the bus; may be empty */
} proxymanager_failure;

/** Called when a question ends. `answer` is null unless `status` is PROXYMANAGER_OK. The callback
 * owns the answer and releases it with proxymanager_answer_unref(). */
typedef void (*proxymanager_answer_callback)(proxymanager_status status,
                                             proxymanager_answer* answer, void* context);

/** Called for each change. */
typedef void (*proxymanager_change_callback)(proxymanager_change change, void* context);

/** The number of a watch, or of a question that was not answered at once; never 0. A client uses
 * each number once. */
typedef uint64_t proxymanager_id;

/** proxymanager_client_new(): if the daemon does not run, the bus does not start it. */
#define PROXYMANAGER_NO_START 0x1u

/** proxymanager_client_new(): ask the daemon about this machine and this link, too. Without this
 * flag the answer for localhost, *.localhost, 127.0.0.0/8, 0.0.0.0, 169.254.0.0/16, ::1, :: and
 * fe80::/10 is DIRECT at once, in every mode and without a daemon. No proxy reaches these hosts,
 * and a script that the network announced must not decide about them. */
#define PROXYMANAGER_ASK_LOCAL 0x2u

/** proxymanager_client_new(): put the configured user name and password into the URL of a manual
 * proxy, if that URL has no user name of its own. The bus allows root and members of the group
 * proxymanager to read user name and password; other users get the URL without them. An answer of a
 * script never contains them, because a script could name any host.
 */
#define PROXYMANAGER_WITH_CREDENTIALS 0x4u

/** proxymanager_client_new(): if no entry of an answer can be used, the question ends with
 * PROXYMANAGER_NO_ANSWER. So no program can understand such an answer as "connect directly". */
#define PROXYMANAGER_REFUSE 0x8u

/** The longest URL of a question, in bytes. No server accepts longer URLs. */
#define PROXYMANAGER_MAX_URL 65535u

/** How many questions of one client may wait for an answer at once. */
#define PROXYMANAGER_MAX_QUESTIONS 1024u

/** How many watches a client may have at once. */
#define PROXYMANAGER_MAX_WATCHES 64u

/** Makes a client. The client connects and starts its thread with the first question or watch.
 * @param flags any of PROXYMANAGER_NO_START, PROXYMANAGER_ASK_LOCAL, PROXYMANAGER_WITH_CREDENTIALS
 * and PROXYMANAGER_REFUSE; other bits are refused
 * @return the client, which the caller frees with proxymanager_client_free(); null if there is no
 * memory or a flag is unknown */
PROXYMANAGER_API proxymanager_client* proxymanager_client_new(unsigned flags);

/** Ends the connection and the client's thread. Waiting questions end with PROXYMANAGER_CANCELLED;
 * their callbacks run during this call, and no callback runs after it. Answers stay valid. No other
 * thread may use the client during this call or after it. Null does nothing. */
PROXYMANAGER_API void proxymanager_client_free(proxymanager_client* client);

/** Asks for the proxies of `url` and waits. The daemon gets the canonical URL: without user name,
 * password and fragment; scheme and host in lower case; "/" for an empty path; without path and
 * query for https and wss. So equivalent URLs share one answer.
 * @param limit_ms longest wait in milliseconds, including the time to connect. The daemon may need
 * 5 s for a script. With 0 the function returns a remembered answer, or PROXYMANAGER_TOO_SLOW
 * @param answer receives the answer, which the caller releases with proxymanager_answer_unref();
 * null unless the function returns PROXYMANAGER_OK. An answer may have no entry if the script has
 * no answer for this URL, or if there is no script yet */
PROXYMANAGER_API proxymanager_status proxymanager_get(proxymanager_client* client, const char* url,
                                                      unsigned limit_ms,
                                                      proxymanager_answer** answer);

/** Asks for the proxies of `url` without waiting.
 * @param limit_ms as for proxymanager_get()
 * @param callback called exactly once if the function returns PROXYMANAGER_OK, else never. The
 * callback runs during this call if the client remembers the answer, else on the client's thread
 * @param id if not null, receives the number for proxymanager_cancel(); 0 if the callback has
 * already run */
PROXYMANAGER_API proxymanager_status proxymanager_get_async(proxymanager_client* client,
                                                            const char* url, unsigned limit_ms,
                                                            proxymanager_answer_callback callback,
                                                            void* context, proxymanager_id* id);

/** Cancels a question. Its callback runs with PROXYMANAGER_CANCELLED on the client's thread. A
 * callback that already runs is not affected.
 * @return 1 if the question was still waiting, else 0 */
PROXYMANAGER_API int proxymanager_cancel(proxymanager_client* client, proxymanager_id id);

/** From now on, calls `callback` for each change, on the client's thread. The first call reports
 * whether the daemon runs. While there is a watch, the client stays connected, and tries every few
 * seconds to reach a lost bus again. The bus may refuse the client's match rules, because its
 * policy limits the number of rules of one connection. In this case, the first call is the only one
 * until the connection ends.
 * @param id receives the number for proxymanager_unwatch() */
PROXYMANAGER_API proxymanager_status proxymanager_watch(proxymanager_client* client,
                                                        proxymanager_change_callback callback,
                                                        void* context, proxymanager_id* id);

/** Ends a watch. When this function has returned, the callback of the watch does not run any more.
 * A callback may end its own watch; it is then not called again. An unknown id does nothing. */
PROXYMANAGER_API void proxymanager_unwatch(proxymanager_client* client, proxymanager_id id);

/** Adds a reference to an answer. @return the same answer; null if `answer` is null */
PROXYMANAGER_API proxymanager_answer* proxymanager_answer_ref(proxymanager_answer* answer);

/** Releases a reference to an answer. The last release frees the answer with its entries and texts.
 * Null does nothing. */
PROXYMANAGER_API void proxymanager_answer_unref(proxymanager_answer* answer);

/** @return "off", "manual", "pacurl" or "wpad"; or "local" if the library itself answered, without
 * the daemon (see PROXYMANAGER_ASK_LOCAL). The text is valid as long as the answer */
PROXYMANAGER_API const char* proxymanager_answer_mode(const proxymanager_answer* answer);

/** @return the number of entries, which may be 0 */
PROXYMANAGER_API size_t proxymanager_answer_count(const proxymanager_answer* answer);

/** @return the entry at `index`; valid as long as the answer. The program tries the entries in the
 * order of their indexes. Null if `index` is not below the count. Later releases may add members at
 * the end of the structure: get each entry by its index, and copy single members, not the whole
 * structure. */
PROXYMANAGER_API const proxymanager_entry* proxymanager_answer_entry(
    const proxymanager_answer* answer, size_t index);

/** @return a short English text for people, such as "the daemon does not run"; never null */
PROXYMANAGER_API const char* proxymanager_status_text(proxymanager_status status);

/** Describes how the last question of the calling thread ended, from proxymanager_get() or
 * proxymanager_get_async(). In a callback, describes the question whose end the callback reports.
 * @return never null; valid until the thread asks its next question, runs its next callback, or
 * ends */
PROXYMANAGER_API const proxymanager_failure* proxymanager_last_failure(void);

/** @return the release of the library with which the program runs, such as "0.1.0" */
PROXYMANAGER_API const char* proxymanager_client_version(void);

#ifdef __cplusplus
}
#endif

#endif
