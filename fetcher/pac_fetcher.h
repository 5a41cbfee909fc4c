// Keeps the PAC file current.
//
// Two threads. The fetcher thread sleeps until a refetch is requested, then walks the candidate
// URLs of the current configuration and installs the first good script by rename. The watch thread
// requests a refetch when one of two files of the network configuration changes. Nothing is fetched
// on a timer.
//
// One mutex guards the configuration copy, and is held during a whole walk, so that the walk sees
// one configuration: an update waits until the walk is over (30 seconds a candidate at most). What
// the watch thread and stop() share about inotify has a mutex of its own, so that neither setting
// the watches up nor giving them up waits for a download.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "service/records/proxy_config.h"
#include "service/records/proxy_config_owner.h"

class ProxyManagerServiceImpl;

class PACFetcher {
 public:
  /// @param service told when a new script is in place; not owned, outlives the fetcher. May be
  ///        null as long as nothing is installed.
  /// @param pacFileName where the script goes; while it is fetched, ".tmp" is appended
  /// @param interval seconds, the longest sleep of either thread
  PACFetcher(ProxyManagerServiceImpl* service, const std::string& pacFileName, int interval);

  /// Stops, then releases everything.
  ~PACFetcher();

  PACFetcher(const PACFetcher&) = delete;
  PACFetcher& operator=(const PACFetcher&) = delete;

  /// Starts both threads; nothing where they run already. May follow stop().
  /// One thread calls start, stop and the destructor.
  /// @return true
  /// @throws std::system_error where the system gives no thread
  bool start();

  /// Ends both threads and returns when they are gone: at once, but for a fetch that is in
  /// progress, which it waits for.
  /// @return true
  bool stop();

  /// Takes a new configuration, and requests a refetch in the modes pacurl and wpad. Waits for a
  /// fetch that is in progress. Any thread but the fetcher's (not from within pacFileUpdated).
  /// Throws std::bad_alloc where there is no memory, and has then changed nothing.
  /// @param config mode, proxyurl and pacurl are copied; the strings stay the caller's
  void updateProxyMgrConfig(ProxyConfig config);

  /// Fetches one http or https URL: 30 seconds, 512,000 bytes and five redirects at most. Other
  /// schemes count as a failed transfer. What stands at `targetFile` is replaced by a new file.
  /// Uses no state; not on two threads at once.
  /// @return whether the transfer succeeded, whatever the HTTP status; the body is then in the
  ///         file. Else the file is removed.
  static bool fileDownload(const std::string& url, const std::string& targetFile);

  /// Whether some line of the file contains "FindProxyForURL". False for a file that cannot be
  /// read.
  static bool isValidPacFile(const std::string& fileName);

  /// Tries the candidates of the current configuration until one is installed. Where a folder at
  /// the script's name held up the installing, an empty one is removed for the next walk.
  /// @return 0 when there was nothing to do, when a script was installed and when every candidate
  ///         failed; -1 in mode pacurl without a URL and in mode wpad without DHCP information
  int retrievePacFile() PM_REQUIRES(mMutex);

  /// What follows the first blank in the last line of /tmp/.resolv.conf.dnsmasq that contains
  /// "search " or "domain ": a domain, or several with blanks between. Empty without such a line,
  /// and where the file is not root's or the process's own, no regular file or longer than 64 KiB.
  std::string getDomainName() const;

  /// The WPAD URLs of each name in `domain`, in order, from the longest to the shortest that is no
  /// public suffix. 256 at most; a name that DNS cannot hold (over 253 characters) has none, nor
  /// one that cannot be a URL's host ("com/.example.com", "h:80").
  /// @param domain names with single blanks between
  std::vector<std::string> wpadUrlCandidatesFromDomain(const std::string& domain) const;

 private:
  friend struct PACFetcherTestAccess;

  void pacFetcherThreadFunc();
  void dhcpCfgWatchThreadFunc();
  int wait_for_changes(int fd, int interval) const;

  enum class Attempt { installed, failed, blockedByFolder };
  bool addUserUrl(std::vector<std::string>& candidates) const PM_REQUIRES(mMutex);
  bool addDiscoveredUrls(std::vector<std::string>& candidates) const;
  Attempt install(const std::string& url) const;

  int openInotify();
  void closeInotify();
  bool addWatches(int fd);
  void watchUntilStopped(int fd, char* buffer);
  void requestRefetch();
  void removeWatches(bool wakeThread) PM_REQUIRES(mMutex);

  static constexpr std::size_t kWatchedFiles = 2;

  ProxyManagerServiceImpl* const mService;
  ProxyConfigOwner mConfig PM_GUARDED_BY(mMutex);
  const std::string mPacFileName;
  const int mInterval;
  Mutex mMutex;
  std::atomic<bool> mRunning{false};
  std::atomic<bool> mRefetch{false};
  std::atomic<bool> mWatchesRemoved{false};
  std::shared_ptr<std::thread> mFetcherThread;       // "pm-fetch"
  std::shared_ptr<std::thread> mDhcpCfgWatchThread;  // "pm-watch"
  std::condition_variable mCondition;                // with mMutex; wakes the fetcher thread
  Mutex mWatchMutex;                                 // leaf: taken after mMutex, or alone
  int mInotifyFd PM_GUARDED_BY(mWatchMutex) = -1;    // the watch thread makes and closes it
  std::vector<int> mWatchDescriptors PM_GUARDED_BY(mWatchMutex);
};
