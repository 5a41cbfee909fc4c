// The current PAC script, the engine made of it, and the answers it gave.
//
// A script is read anew whenever the fetcher has put a file in place; the engine is rebuilt each
// time, the cache is emptied only when the script's digest changed. A query is answered from the
// cache of its host, else by the engine on the caller's thread. One thread of its own runs what the
// engine queued for asynchronous queries; it never evaluates by itself.
//
// Locks: the engine's mutex may be held when the cache's is taken; the wait mutex is a leaf. The
// gate of the answers comes before all of them. Lists that getProxy returns share their texts with
// the cache, so a caller shares the gate (shareAnswers) while it copies them, and a reload holds
// the gate alone from the emptying of the cache until the new engine is in place. So no text is
// freed while it is read, and no answer of the old script enters the emptied cache.
//
// The members stand in two files: pac_script_file.cpp reads the script, compares its digest and
// rebuilds the engine; pac_parser.cpp holds everything else. pac_result.h parses results.
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
  /// Most hosts whose answers are kept.
  static constexpr int kCacheCapacity = 50;
  /// Most hosts remembered as asked for asynchronously: as many as the engine's queue holds.
  static constexpr std::size_t kMaxPendingHosts = 256;
  /// Length of a script's digest in bytes.
  static constexpr std::size_t kDigestLength = 16;

  /// @param service told when the script's content has changed; not owned, may be null
  /// @param pacInitOption false: the engine is online; true: it is offline, where names do not
  /// resolve
  PacParser(ProxyManagerServiceImpl* service, bool pacInitOption);
  ~PacParser();
  PacParser(const PacParser&) = delete;
  PacParser& operator=(const PacParser&) = delete;

  /// Starts the worker thread. Throws std::system_error where there is none to be had. Not while
  /// stop() runs. @return true
  bool start();

  /// Ends the worker thread, releases engine, script and cache. No query may be in flight, none may
  /// follow. @return true
  bool stop();

  /// Reads the script and makes a new engine of it. A file that cannot be read leaves the engine as
  /// it is; a script that is refused leaves none. One thread at a time; waits for those who share
  /// the answers, for a query in the engine (5 s at most) and for the script to load (5 s at most).
  /// @return 0
  int parsePacFile(const std::string& fileName) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// Reads the script, and empties the cache and tells the service where its digest has changed.
  /// Only a regular file of root or of the process's user is read. Thread and waits as
  /// parsePacFile, but for the load. @return 1 where it was read, else 0
  int readPacFile(const std::string& fileName) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// What to use for `requestUrl`, in the script's order; empty where there is no answer. The texts
  /// are the cache's: they are to be copied while shareAnswers() is held, and before the next
  /// query, which may evict or overwrite them. So queries, this one and the next, come from one
  /// thread at a time. Waits for the evaluation, 5 s at most, and for one that runs or a reload
  /// before it.
  ProxyUrlSettings getProxy(const std::string& requestUrl) PM_EXCLUDES(mEngineMutex, mCacheMutex);

  /// As getProxy, but the worker thread evaluates. Waits at most 200 ms for the answer. An answer
  /// that comes later reaches the cache, unless the engine was busy for all of that time: then the
  /// question is dropped.
  ProxyUrlSettings getProxyASync(const std::string& requestUrl)
      PM_EXCLUDES(mEngineMutex, mCacheMutex, mWaitMutex);

  /// Holds off reloads while the texts of answers are copied. Any thread; waits while a reload
  /// empties the cache and loads its script, some 5 s at most. To be taken before any query.
  [[nodiscard]] std::shared_lock<std::shared_mutex> shareAnswers() {
    return std::shared_lock(mAnswerGate);
  }

  /// The entries of a result text such as "PROXY a:1; DIRECT": script_result::entriesOf()
  /// (pac_result.h). The caller owns their texts and releases them with clearProxySettings.
  static ProxyUrlSettings proxys2ProxySettings(const std::string& proxys);

  /// One entry: script_result::entryOf() (pac_result.h). The caller owns its text and releases it
  /// with cleanupProxySetting.
  static ProxyUrlSetting proxy2ProxySetting(std::string proxy);

  /// Takes a result of the engine: parses and keeps it under the host, then frees `result`. The
  /// type is pac_result's: `parser` is a PacParser, `host` a C string; null ones are borne.
  static void proxyFound(char* result, void* parser, void* host);
  /// Keeps the parsed `result` under `host`; nothing where the host is null. Any thread.
  void proxy_Found(const char* result, const char* host) PM_EXCLUDES(mCacheMutex);

  /// The engine's wake-up callback; `parser` is a PacParser or null.
  static void notify(void* parser);
  /// Marks that the engine has something queued and wakes the worker thread. Any thread; takes no
  /// lock, as it is called inside the engine.
  void do_notify();

  /// MD5 (RFC 1321) of `length` bytes into the 16 bytes at `digest`.
  /// @return false, with the digest untouched, where a pointer is null or the length 0
  static bool doMd5Hash(unsigned char* digest, const void* data, std::size_t length);

  /// Empties the cache and forgets the asynchronous queries in flight.
  void clearProxyUrlCache() PM_EXCLUDES(mCacheMutex);
  /// The cache's release callback; `context` is a PacParser, null: nothing done.
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
  std::atomic<bool> mHasEngine{false};  // whether mPac is set, without waiting for an evaluation
  const bool mPacInitOption;
  HeapText mPacContent PM_GUARDED_BY(mEngineMutex);
  HeapText mPacHash;  // under the gate, held alone
  std::map<std::string, bool> mPendingHosts PM_GUARDED_BY(mCacheMutex);
  RecursiveMutex mEngineMutex;
  RecursiveMutex mCacheMutex PM_ACQUIRED_AFTER(mEngineMutex);
  Mutex mWaitMutex;  // a leaf
  std::shared_mutex mAnswerGate;
  std::atomic<bool> mRunning{false};
  std::atomic<bool> mNotified{false};
  std::shared_ptr<std::thread> mThread;
  std::condition_variable mCond;
  int mWaitSeconds = 120;
  std::unique_ptr<ProxyUrlCache> mCache PM_GUARDED_BY(mCacheMutex);
};
