// Keeps the PAC file current.
//
// It has two threads. The fetcher thread sleeps until a refetch is requested. Then it tries the
// candidate URLs of the current configuration one after the other (a walk), and installs the first
// good script by rename. The watch thread requests a refetch when one of two files of the network
// configuration changes. Nothing is fetched on a timer.
//
// One mutex guards the copy of the configuration and the request for a walk. A walk holds the mutex
// except while a transfer runs. So an update never waits for a download, but it waits for the load
// of a script that is being installed (5 seconds at most). A walk uses one configuration. If an
// update changes the mode or a URL, the transfer in progress ends, and the walk's other candidates
// fail without a transfer. If an update changes neither the mode nor a URL, the walk in progress
// continues, and one further walk follows. If such an update ended the walk, two programs that send
// the same configuration in turn could prevent every download.
//
// The supervisor gets a line about the mode, the last update and the last walk. Only the fetcher
// thread sends the line, because a supervisor that does not read must not delay an update.
//
// These files implement parts of the class: walk (the candidate URLs), wpad_candidates,
// resolver_file, download with fetch_process and target_file, config_watch.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/daemon_status.h"
#include "base/mutex.h"
#include "fetcher/config_watch.h"
#include "fetcher/download.h"
#include "fetcher/walk_report.h"
#include "service/records/proxy_config.h"
#include "service/records/proxy_config_owner.h"

class ProxyManagerServiceImpl;

class PACFetcher {
 public:
  /// @param service notified when a new script is in place; not owned, outlives the fetcher. May be
  /// null if the fetcher installs no script.
  /// @param pacFileName the path of the script; a download in progress is in the file with ".tmp"
  /// appended
  /// @param interval seconds, the longest sleep of either thread
  PACFetcher(ProxyManagerServiceImpl* service, const std::string& pacFileName, int interval);

  /// Stops, then releases everything.
  ~PACFetcher();

  PACFetcher(const PACFetcher&) = delete;
  PACFetcher& operator=(const PACFetcher&) = delete;

  /// Starts both threads; does nothing if they already run. May be called again after stop(). One
  /// thread calls start, stop and the destructor.
  /// @return true
  /// @throws std::system_error if no thread can be started
  bool start();

  /// Ends both threads and waits for their end. This takes as long as the transfer in progress and
  /// the load of its script; the walk's other candidates fail at once.
  /// @return true
  bool stop();

  /// Accepts a new configuration, and requests a refetch in the modes pacurl and wpad. If the mode
  /// or a URL changes, the transfer in progress ends. Any thread except the fetcher's (not from
  /// within pacFileUpdated). If it throws std::bad_alloc, nothing has changed.
  /// @param config mode, proxyurl and pacurl are copied; the caller keeps the strings
  void updateProxyMgrConfig(ProxyConfig config);

  /// Fetches one http or https URL in a separate process. The limits are 30 seconds, 512,000 bytes
  /// and five redirects. A URL of another scheme counts as a failed transfer. A new file replaces
  /// the file at `targetFile`. The function keeps no state; two threads must not call it at the
  /// same time.
  /// @return whether the transfer succeeded, with any HTTP status; the body is then in the file.
  ///         After a failed transfer, the file is removed.
  static bool fileDownload(const std::string& url, const std::string& targetFile);

  /// Whether a line of the file contains "FindProxyForURL". False if the file cannot be read.
  static bool isValidPacFile(const std::string& fileName);

  /// Tries the candidates of the current configuration until one is installed. If an empty folder
  /// of root is at the script's name, the function removes it for the next walk. Called with mMutex
  /// held; releases mMutex while a transfer runs.
  /// @return 0 if there was nothing to do, if a script was installed, or if every candidate failed;
  /// -1 in mode pacurl without a URL, and in mode wpad without DHCP information
  int retrievePacFile() PM_REQUIRES(mMutex);

  /// Reads the last line of /tmp/.resolv.conf.dnsmasq that contains "search " or "domain ", and
  /// returns the text after its first blank: a domain, or several domains with blanks between them.
  /// The result is empty if there is no such line, or if the file is refused because it belongs
  /// neither to root nor to the process's user, has a second name, is not a regular file, or is
  /// longer than 64 KiB.
  std::string getDomainName() const;

  /// The WPAD URLs for each name in `domain`, in the order of the names. For each name, the URLs go
  /// from the whole name to its shortest suffix that is not a public suffix. There are 32 URLs at
  /// most. A name gets no URL if it is too long for DNS (over 253 characters) or cannot be the host
  /// of a URL ("com/.example.com", "h:80").
  /// @param domain names with single blanks between them
  std::vector<std::string> wpadUrlCandidatesFromDomain(const std::string& domain) const;

 private:
  friend struct PACFetcherTestAccess;

  void pacFetcherThreadFunc();
  void dhcpCfgWatchThreadFunc();
  int wait_for_changes(int fd, int interval) const;

  enum class Attempt { installed, failed, blockedByFolder };
  Attempt tryCandidate(const std::string& url, unsigned walk) PM_REQUIRES(mMutex);
  bool fetch(const std::string& url, const std::string& temporary, unsigned walk, std::string& why)
      PM_REQUIRES(mMutex);
  Attempt install(const std::string& url, const std::string& temporary) PM_REQUIRES(mMutex);
  bool mayGoOn(unsigned walk) const PM_REQUIRES(mMutex);
  void noteWalkBegin() PM_REQUIRES(mMutex);
  void reportStatus() PM_REQUIRES(mMutex);
  void noteWalk() PM_REQUIRES(mMutex);
  bool requestRefetch();

  ProxyManagerServiceImpl* const mService;
  ProxyConfigOwner mConfig PM_GUARDED_BY(mMutex);
  const std::string mPacFileName;
  const int mInterval;
  Mutex mMutex;
  std::atomic<bool> mRunning{false};
  std::atomic<bool> mStopping{false};  // true from stop() to the next start()
  std::atomic<bool> mRefetch{false};
  std::shared_ptr<std::thread> mFetcherThread;       // "pm-fetch"
  std::shared_ptr<std::thread> mDhcpCfgWatchThread;  // "pm-watch"
  std::condition_variable mCondition;                // wakes the fetcher thread; used with mMutex
  unsigned mConfigNumber PM_GUARDED_BY(mMutex) = 0;  // grows at each change of the mode or a URL
  base::DaemonStatus mStatus PM_GUARDED_BY(mMutex){"off", 0, 0, 0, {}, 0};
  bool mStatusIsNew PM_GUARDED_BY(mMutex) = true;     // not sent to the supervisor yet
  fetcher::WalkReport mReport PM_GUARDED_BY(mMutex);  // about the walk in progress
  fetcher::TransferSwitch mTransferSwitch;
  fetcher::ConfigWatch mWatch;
};
