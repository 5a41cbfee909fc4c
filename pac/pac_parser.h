// The current PAC script, the engine that runs it, and the answers of the script.
//
// Each time the fetcher has installed a file, the parser reads the script again and makes a new
// engine. The parser empties the cache only if the script's digest has changed. If the cache has
// the host of a query, the answer comes from the cache. Otherwise the engine evaluates the query on
// the caller's thread. The parser's own thread evaluates only the questions that asynchronous
// queries have queued in the engine.
//
// Locks: a thread may take the cache's mutex while it holds the engine's mutex. While a thread
// holds the wait mutex, it takes no other lock. mAnswerGate, a shared mutex, is locked before all
// these mutexes. The lists that getProxy returns share their texts with the cache. So a caller
// holds mAnswerGate shared (shareAnswers) while it copies the texts. A reload holds mAnswerGate
// exclusively from before it empties the cache until the new engine is in place. So no text is
// freed while it is read, and no answer of the old script enters the emptied cache.
//
// Two files implement the class: pac_script_file.cpp reads the script, compares its digest and
// rebuilds the engine; pac_parser.cpp does everything else. pac_result.h parses results.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "engine/pac.h"
#include "pac/proxy_url_cache.h"
#include "service/records/proxy_config_owner.h"

class ProxyManagerServiceImpl;

class PacParser {
 public:
  /// Number of hosts whose answers are kept.
  static constexpr int kCacheCapacity = 50;
  /// Maximum number of hosts of pending asynchronous questions, equal to the length of the engine's
  /// queue.
  static constexpr std::size_t kMaxPendingHosts = 256;
  /// Length of a script's digest in bytes.
  static constexpr std::size_t kDigestLength = 16;

  /// @param service notified when the script's content has changed; not owned, may be null
  /// @param pacInitOption false: the engine is online; true: the engine is offline and resolves no
  /// names
  PacParser(ProxyManagerServiceImpl* service, bool pacInitOption);
  ~PacParser();
  PacParser(const PacParser&) = delete;
  PacParser& operator=(const PacParser&) = delete;

  /// Starts the worker thread. Throws std::system_error if no thread can be started. Not called
  /// while stop() runs. @return true
  bool start();

  /// Ends the worker thread and releases engine, script and cache. No query may be in progress, and
  /// none may follow. @return true
  bool stop();

  /// Reads the script and makes a new engine with it. If the file cannot be read, the old engine
  /// stays. If the script is refused, there is no engine. One thread at a time. Waits until no
  /// thread holds the lock of shareAnswers(). Then waits for a query in the engine (5 s at most)
  /// and for the load of the script (5 s at most).
  /// @return 0
  int parsePacFile(const std::string& fileName) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// Whether a script is loaded. Any thread; never waits.
  bool hasEngine() const { return mHasEngine; }

  /// Reads the script. If the script's digest has changed, empties the cache and notifies the
  /// service. Reads only a regular file of root or of the process's user. One thread at a time.
  /// Waits like parsePacFile, but not for the load of the script.
  /// @return 1 if the script was read, else 0
  int readPacFile(const std::string& fileName) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// The proxies for `requestUrl`, in the script's order; empty if there is no answer. The cache
  /// owns the texts. The caller must copy them while it holds shareAnswers(), and before the next
  /// query, because that query may evict or overwrite them. Therefore only one thread at a time may
  /// query. First waits for an evaluation or a reload in progress, then for its own evaluation (5 s
  /// at most).
  ProxyUrlSettings getProxy(const std::string& requestUrl) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// Like getProxy, but the worker thread evaluates the question. Waits at most 200 ms for the
  /// answer. If the answer arrives later, it is stored in the cache. If the engine is busy for the
  /// whole 200 ms, the question is dropped.
  ProxyUrlSettings getProxyASync(const std::string& requestUrl)
      PM_EXCLUDES(mEngineMutex, mCacheMutex, mWaitMutex);

  /// Prevents reloads while the texts of answers are copied. Any thread. Waits while a reload
  /// empties the cache and loads its script, about 5 s at most. The caller takes this lock before
  /// any query.
  [[nodiscard]] std::shared_lock<std::shared_mutex> shareAnswers() {
    return std::shared_lock(mAnswerGate);
  }

  /// The entries of a result text such as "PROXY a:1; DIRECT", by script_result::entriesOf()
  /// (pac_result.h). The caller owns the texts of the entries and releases them with
  /// clearProxySettings.
  static ProxyUrlSettings proxys2ProxySettings(const std::string& proxys);

  /// One entry, by script_result::entryOf() (pac_result.h). The caller owns the text of the entry
  /// and releases it with cleanupProxySetting.
  static ProxyUrlSetting proxy2ProxySetting(std::string proxy);

  /// The engine's result callback (pac_result): parses `result`, stores the entries under the host,
  /// then frees `result`. `parser` is a PacParser, `host` a C string; null pointers are accepted.
  static void proxyFound(char* result, void* parser, void* host);
  /// Parses `result` and stores the entries under `host`. Does nothing if `host` is null. Any
  /// thread.
  void proxy_Found(const char* result, const char* host) PM_EXCLUDES(mCacheMutex);

  /// The engine's wake-up callback; `parser` is a PacParser or null.
  static void notify(void* parser);
  /// Marks that questions wait in the engine, and wakes the worker thread. Any thread. Takes no
  /// lock, because the engine calls it.
  void do_notify();

  /// MD5 (RFC 1321) of `length` bytes into the 16 bytes at `digest`.
  /// @return false if a pointer is null or the length is 0; the digest is then unchanged
  static bool doMd5Hash(unsigned char* digest, const void* data, std::size_t length);

  /// Empties the cache and forgets the asynchronous queries in progress.
  void clearProxyUrlCache() PM_EXCLUDES(mCacheMutex);
  /// The cache's release callback. `context` is a PacParser; does nothing if it is null.
  static void clearProxyUrlCacheCallBack(ProxyUrlSettings& settings, void* context);
  /// Frees the texts of a list and empties it.
  static void clearProxySettings(ProxyUrlSettings& settings);

  /// Body of the worker thread.
  void pacProcessThreadFunc() PM_EXCLUDES(mWaitMutex, mEngineMutex);

 private:
  friend struct PacParserTestAccess;
  struct FreeEngine {
    void operator()(pac* engine) const { pac_free(engine); }
  };
  using Engine = std::unique_ptr<pac, FreeEngine>;
  using ReloadGate = std::unique_lock<std::shared_mutex>;
  class ReadBuffer;

  int readPacFile(const std::string& fileName, ReloadGate& gate)
      PM_EXCLUDES(mEngineMutex, mCacheMutex);
  void compareDigest(const ReadBuffer& content) PM_EXCLUDES(mEngineMutex, mCacheMutex);
  bool takeCached(const std::string& key, ProxyUrlSettings& found) PM_EXCLUDES(mCacheMutex);
  ProxyUrlSettings awaitAnswer(const std::string& key, std::chrono::milliseconds waited)
      PM_EXCLUDES(mCacheMutex);
  void waitForNotice() PM_EXCLUDES(mWaitMutex);
  void runQueued() PM_EXCLUDES(mEngineMutex);
  void notePending(const std::string& key) PM_EXCLUDES(mCacheMutex);
  bool queueQuestion(const std::string& requestUrl, const std::string& key,
                     std::chrono::milliseconds& waited) PM_EXCLUDES(mEngineMutex);
  bool hasCache() PM_EXCLUDES(mCacheMutex);

  ProxyManagerServiceImpl* mServiceImpl;
  Engine mPac PM_GUARDED_BY(mEngineMutex);
  std::atomic<bool> mHasEngine{false};  // whether mPac is set; reading it never waits
  const bool mPacInitOption;
  HeapText mPacContent PM_GUARDED_BY(mEngineMutex);
  HeapText mPacHash;  // changed only while mAnswerGate is held exclusively
  std::map<std::string, bool> mPendingHosts PM_GUARDED_BY(mCacheMutex);
  RecursiveMutex mEngineMutex;
  RecursiveMutex mCacheMutex PM_ACQUIRED_AFTER(mEngineMutex);
  Mutex mWaitMutex;  // a thread that holds it takes no other lock
  std::shared_mutex mAnswerGate;
  std::atomic<bool> mRunning{false};
  std::atomic<bool> mNotified{false};
  std::shared_ptr<std::thread> mThread;
  std::condition_variable mCond;
  int mWaitSeconds = 120;
  std::unique_ptr<ProxyUrlCache> mCache PM_GUARDED_BY(mCacheMutex);
};
