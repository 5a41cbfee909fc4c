/* The PAC evaluation library: runs FindProxyForURL of a proxy auto-config script.
 *
 * The script runs in a separate process, the sandboxed `proxymanager-pac-worker`, never in the
 * caller's process. The library has no threads. Two threads must not use one handle at the same
 * time; different handles are independent. Every function accepts a null handle or script. The
 * function then has no effect, and returns no engine and no answer. The library copies all texts
 * before a call returns.
 *
 * Limits (docs/pac-language.md): loading 5 s, one evaluation 5 s with all its name lookups, URL 8
 * KiB, result 64 KiB. If a stopped or broken worker exceeds a time limit, the library kills it a
 * quarter of a second after the limit. If a worker has died, the next question starts a new one.
 * The start is part of that question's 5 s.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** An engine with one script loaded. */
struct pac;

/** Option words of pac_init. */
enum {
  PAC_OPTION_ONLINE = 1, /**< names resolve, own addresses are those of the device */
  PAC_OPTION_OFFLINE = 4 /**< only localhost resolves, the own address is the loopback address */
};

/** Wakes the thread that calls pac_run_callbacks. This callback may only set a flag and signal that
 * thread. */
typedef void (*pac_wakeup)(void* context);

/** Receives one asynchronous result. The receiver owns `result` and releases it with free(). `host`
 * is the library's own copy of the question's host and is valid only during the call. */
typedef void (*pac_result)(char* result, void* context, void* host);

/** Starts a worker, which loads the NUL-terminated `script`. Waits 5.25 s at most.
 *  @param option PAC_OPTION_ONLINE or PAC_OPTION_OFFLINE
 *  @param wakeup called on the thread that calls pac_find_proxy; may be null
 *  @return an engine, to be released with pac_free. Null if the script is null or refused (syntax,
 *          exception, no entry point, limits), or if no worker can be started; syslog then has the
 *          reason */
struct pac* pac_init(const char* script, int option, pac_wakeup wakeup, void* context);

/** Queues one question and calls the wake-up callback. A later pac_run_callbacks calls `found`, but
 * only if there is an answer. The queue contains at most 256 questions; a further question is
 * dropped without an answer. */
void pac_find_proxy(struct pac* engine, const char* url, const char* host, pac_result found,
                    void* context);

/** Evaluates FindProxyForURL(url, host) on the calling thread; waits 5.25 s at most.
 *  @param url the script sees it without user, password and fragment, and for https and wss without
 *  path and query
 *  @param host passed to the script unchanged
 *  @param result receives a heap text, which the caller releases with free(), or null if there is
 *         no answer */
void pac_find_proxy_sync_n(struct pac* engine, const char* url, const char* host, char** result);

/** Evaluates, on the calling thread, the questions that were queued with pac_find_proxy before this
 *  call, and delivers the results. A callback may queue further questions; the next call evaluates
 *  them. A callback must not free the engine. */
void pac_run_callbacks(struct pac* engine);

/** Ends the worker and drops the queued questions. Their callbacks are not called. */
void pac_free(struct pac* engine);

#ifdef __cplusplus
}
#endif
