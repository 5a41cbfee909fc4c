/* Asking the device's proxy manager which proxy to use for a URL.
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
 * A client keeps one connection to the system message bus, on a thread of its own that it starts
 * with the first question. It keeps answers, too: a question asked again costs no call on the bus
 * until the daemon says that its answers have changed, or comes or goes. When the daemon or the bus
 * ends, it connects again by itself once they are back; what was asked meanwhile is told so.
 *
 * Threads: all functions may be called from any thread, on the same client as well. Callbacks come
 * on the client's thread, one at a time, or, where a function says so, during the call; they should
 * be short, as the next answer waits for them, and the news that remembered answers have changed;
 * one of half a minute may cost a connection that is being made, which then ends as denied. Of a
 * callback all functions may be called but proxymanager_client_free(); proxymanager_get() gives
 * PROXYMANAGER_BUSY there where it would have to wait. A thread that waits in proxymanager_get()
 * must not be cancelled by pthread_cancel().
 *
 * Processes: after fork() a client belongs to the parent, which the library knows by its process
 * id. In the child proxymanager_client_free() does nothing, because threads of the parent may have
 * been changing the client when it was copied; questions there give PROXYMANAGER_FORKED. The
 * descriptors are closed by exec.
 *
 * Texts are UTF-8 without NUL, as the bus demands, and without Unicode's noncharacters. Nothing
 * here writes to standard output, standard error or syslog, changes a signal's handling or the
 * environment. DBUS_SYSTEM_BUS_ADDRESS names the bus where it is set when the client is made,
 * unless the program has more rights than its caller.
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

/** A connection with what it remembers. */
typedef struct proxymanager_client proxymanager_client;

/** What the daemon said of one URL; never changes, and may be shared by threads. */
typedef struct proxymanager_answer proxymanager_answer;

/** How a question ended. Numbers keep their meaning in later releases, which may add others. */
typedef enum proxymanager_status {
  PROXYMANAGER_OK = 0,
  PROXYMANAGER_NO_BUS = 1,       /**< no message bus, or the connection to it ended, or the bus said
                                      nothing for 10 s while it was made */
  PROXYMANAGER_NO_DAEMON = 2,    /**< the daemon does not run, ended, or is about to */
  PROXYMANAGER_DENIED = 3,       /**< the bus does not let this program ask */
  PROXYMANAGER_TOO_SLOW = 4,     /**< no answer within the limit */
  PROXYMANAGER_BAD_REPLY = 5,    /**< what has the daemon's name does not answer as it does */
  PROXYMANAGER_CANCELLED = 6,    /**< taken back, or the client was freed */
  PROXYMANAGER_BAD_ARGUMENT = 7, /**< a null pointer, a URL that is no such text or too long */
  PROXYMANAGER_NO_MEMORY = 8,    /**< no memory, descriptor or thread to be had */
  PROXYMANAGER_BUSY = 9,         /**< too many questions at once, here or for the bus, or a wait
                                      inside a callback */
  PROXYMANAGER_FORKED = 10,      /**< the client belongs to the parent of this process */
  PROXYMANAGER_NO_ANSWER = 11    /**< no entry can be used (see PROXYMANAGER_REFUSE) */
} proxymanager_status;

/** What an entry says to do. */
typedef enum proxymanager_kind {
  PROXYMANAGER_UNUSABLE = 0, /**< not understood: only `text` is set. Go on to the next entry */
  PROXYMANAGER_DIRECT = 1,   /**< without a proxy */
  PROXYMANAGER_HTTP = 2,     /**< an HTTP proxy */
  PROXYMANAGER_HTTPS = 3,    /**< an HTTP proxy that is itself spoken to in TLS */
  PROXYMANAGER_SOCKS4 = 4,
  PROXYMANAGER_SOCKS4A = 5,
  PROXYMANAGER_SOCKS5 = 6, /**< names are looked up by the program */
  PROXYMANAGER_SOCKS5H = 7 /**< names are looked up by the proxy */
} proxymanager_kind;

/** One thing to try. No member is null; those without a value are empty. */
typedef struct proxymanager_entry {
  proxymanager_kind kind;
  const char* text;        /**< as the daemon gives it: "PROXY cache.example.org:8080" */
  const char* url;         /**< "http://cache.example.org:8080"; "direct://"; empty if unusable */
  const char* scheme;      /**< of `url`: "http", "https", "socks4", "socks4a", "socks5",
                                "socks5h", "direct" */
  const char* credentials; /**< "user:password" as a manual proxy's URL has them, percent-encoded;
                                part of `url` */
  const char* host;        /**< a name, an IPv4 address, or an IPv6 address in brackets */
  uint16_t port;           /**< in host order; 0 without a proxy */
} proxymanager_entry;

/** What happened, as proxymanager_watch() tells it. */
typedef enum proxymanager_change {
  PROXYMANAGER_ANSWERS_CHANGED = 1, /**< ask again: earlier answers may be wrong by now */
  PROXYMANAGER_DAEMON_CAME = 2,     /**< the daemon answers (again); earlier answers are stale */
  PROXYMANAGER_DAEMON_WENT = 3      /**< the daemon, or the bus, is gone */
} proxymanager_change;

/** More about a question that did not end with PROXYMANAGER_OK, for a log line: what the bus, or
 * who has the daemon's name there, said of it. Texts are as they came and may hold anything. */
typedef struct proxymanager_failure {
  proxymanager_status status;
  int error;        /**< errno, where there was no connection to the bus: ETIMEDOUT where the limit
                         was over before it was made, or the bus said nothing for 10 s; else 0 */
  const char* name; /**< of the error on the bus, "org.freedesktop.DBus.Error.AccessDenied"; empty
                         where none was sent */
  const char* text; /**< of the error on the bus; may be empty */
} proxymanager_failure;

/** Takes the end of a question: `answer` is null unless `status` is PROXYMANAGER_OK, and is the
 * callee's, to be given back with proxymanager_answer_unref(). */
typedef void (*proxymanager_answer_callback)(proxymanager_status status,
                                             proxymanager_answer* answer, void* context);

/** Takes a change. */
typedef void (*proxymanager_change_callback)(proxymanager_change change, void* context);

/** A question that was not answered at once, or a watch; never 0. Not used again by its client. */
typedef uint64_t proxymanager_id;

/** proxymanager_client_new(): if the daemon does not run, do not have the bus start it. */
#define PROXYMANAGER_NO_START 0x1u

/** proxymanager_client_new(): ask the daemon about this machine and this link, too. Without it the
 * answer for localhost, *.localhost, 127.0.0.0/8, 0.0.0.0, 169.254.0.0/16, ::1, :: and fe80::/10 is
 * DIRECT at once, in every mode and without a daemon: no proxy reaches them, and a script that the
 * network announced has no business there. */
#define PROXYMANAGER_ASK_LOCAL 0x2u

/** proxymanager_client_new(): put the configured user name and password into the URL of a manual
 * proxy that has none of its own. The bus lets root and members of the group proxymanager read
 * them; for others the answer has none. A script's answer never gets them: it could name any host.
 */
#define PROXYMANAGER_WITH_CREDENTIALS 0x4u

/** proxymanager_client_new(): an answer without an entry that can be used ends the question with
 * PROXYMANAGER_NO_ANSWER, so that no program takes it for "directly". */
#define PROXYMANAGER_REFUSE 0x8u

/** The longest URL that can be asked about, in bytes: more than any server takes. */
#define PROXYMANAGER_MAX_URL 65535u

/** How many questions of one client may wait for an answer at once. */
#define PROXYMANAGER_MAX_QUESTIONS 1024u

/** How many watches a client may have at once. */
#define PROXYMANAGER_MAX_WATCHES 64u

/** Makes a client. Nothing is connected or started before the first question or watch.
 * @param flags any of PROXYMANAGER_NO_START, PROXYMANAGER_ASK_LOCAL, PROXYMANAGER_WITH_CREDENTIALS
 * and PROXYMANAGER_REFUSE; further bits are refused
 * @return the client, to be freed with proxymanager_client_free(); null without memory and for
 * unknown flags */
PROXYMANAGER_API proxymanager_client* proxymanager_client_new(unsigned flags);

/** Ends the connection and the client's thread. Questions that wait end with
 * PROXYMANAGER_CANCELLED, their callbacks during this call; none comes after it. Answers live on.
 * No other thread may use the client by then. Null does nothing. */
PROXYMANAGER_API void proxymanager_client_free(proxymanager_client* client);

/** Asks for the proxies of `url` and waits. The daemon is asked about the canonical URL: without
 * user name, password and fragment, scheme and host in lower case, "/" for an empty path, https and
 * wss without path and query. So equivalent URLs share one answer.
 * @param limit_ms how long to wait at most, the connecting included, in milliseconds. A script may
 * take the daemon 5 s; 0 gives what the client remembers and PROXYMANAGER_TOO_SLOW for the rest
 * @param answer takes the answer, to be given back with proxymanager_answer_unref(); null unless
 * PROXYMANAGER_OK is returned. An answer may have no entry: the script has none for this URL, or
 * there is no script yet */
PROXYMANAGER_API proxymanager_status proxymanager_get(proxymanager_client* client, const char* url,
                                                      unsigned limit_ms,
                                                      proxymanager_answer** answer);

/** Asks for the proxies of `url` without waiting.
 * @param limit_ms as above
 * @param callback called exactly once: during this call where the answer is remembered, else on the
 * client's thread. Not called where this returns another status than PROXYMANAGER_OK
 * @param id where not null, takes what proxymanager_cancel() wants; 0 where the callback has been
 * called */
PROXYMANAGER_API proxymanager_status proxymanager_get_async(proxymanager_client* client,
                                                            const char* url, unsigned limit_ms,
                                                            proxymanager_answer_callback callback,
                                                            void* context, proxymanager_id* id);

/** Takes a question back. Its callback is called with PROXYMANAGER_CANCELLED, on the client's
 * thread; one that is already being called is left alone.
 * @return 1 where the question still waited, else 0 */
PROXYMANAGER_API int proxymanager_cancel(proxymanager_client* client, proxymanager_id id);

/** Calls `callback` for each change from now on, on the client's thread. While there is a watch the
 * client stays connected, and looks for a lost bus every few seconds. The first call tells whether
 * the daemon is there. Where the bus takes no match rules of the client's, as its policy has none
 * left for one connection, that is the only call until the connection ends.
 * @param id takes what proxymanager_unwatch() wants */
PROXYMANAGER_API proxymanager_status proxymanager_watch(proxymanager_client* client,
                                                        proxymanager_change_callback callback,
                                                        void* context, proxymanager_id* id);

/** Ends a watch. When it returns, its callback does not run and will not; inside that callback, it
 * will not be called again. An unknown id does nothing. */
PROXYMANAGER_API void proxymanager_unwatch(proxymanager_client* client, proxymanager_id id);

/** @return one more holder of the same answer; null for null */
PROXYMANAGER_API proxymanager_answer* proxymanager_answer_ref(proxymanager_answer* answer);

/** Gives an answer back, with its entries and texts when nobody else holds it. Null does
 * nothing. */
PROXYMANAGER_API void proxymanager_answer_unref(proxymanager_answer* answer);

/** @return "off", "manual", "pacurl" or "wpad", or "local" for an answer that was given without
 * asking (see PROXYMANAGER_ASK_LOCAL); lives as long as the answer */
PROXYMANAGER_API const char* proxymanager_answer_mode(const proxymanager_answer* answer);

/** @return how many entries there are, in the order to be tried; may be 0 */
PROXYMANAGER_API size_t proxymanager_answer_count(const proxymanager_answer* answer);

/** @return the entry, which lives as long as the answer; null from the count on. Later releases may
 * add members at its end: ask for each by its index, and copy members, not the whole. */
PROXYMANAGER_API const proxymanager_entry* proxymanager_answer_entry(
    const proxymanager_answer* answer, size_t index);

/** @return a few English words for people, never null: "the daemon does not run" */
PROXYMANAGER_API const char* proxymanager_status_text(proxymanager_status status);

/** Says more of the last question of the calling thread: the one whose proxymanager_get() or
 * proxymanager_get_async() returned, or, in a callback, the one whose end it takes.
 * @return never null; holds until the thread's next question or callback, or its end */
PROXYMANAGER_API const proxymanager_failure* proxymanager_last_failure(void);

/** @return the release of the library that runs: "0.1.0" */
PROXYMANAGER_API const char* proxymanager_client_version(void);

#ifdef __cplusplus
}
#endif

#endif
