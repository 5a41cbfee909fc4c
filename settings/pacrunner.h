// The bus name org.pacrunner: network managers push their proxy settings to it, and some programs
// ask it for proxies. NetworkManager and ConnMan define the calls, the keys and the lifetimes.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "settings/daemon_link.h"
#include "settings/network_set.h"
#include "settings/question_queue.h"

namespace settings {

/// Longest question, in bytes: the URL and the host together. The daemon answers a longer URL
/// without the script.
inline constexpr std::size_t kMaxQuestionBytes = 16U << 10U;

/// Reads CreateProxyConfiguration's dictionary. It skips unknown keys and values of a wrong type,
/// and cuts lists at kMaxListEntries.
/// @param problem receives the reason if there is no configuration
/// @return 0; 1 if the configuration cannot be used; or a negative errno of the bus library
int readPushed(sd_bus_message* call, PushedConfiguration& pushed, std::string& problem);

class PacRunner {
 public:
  /// @param changed called after each change of the set
  PacRunner(sd_bus* bus, DaemonLink& daemon, std::function<void()> changed);
  ~PacRunner();
  PacRunner(const PacRunner&) = delete;
  PacRunner& operator=(const PacRunner&) = delete;

  /// Adds the objects and requests the name. Throws std::system_error. If another program owns the
  /// name, the function logs this, and no settings are pushed to this service.
  void start();

  /// If `all` is true, FindProxyForURL returns all entries, joined by "; ". Else it returns the
  /// first entry.
  void answerAll(bool all) { mAnswersAll = all; }

  const NetworkSet& set() const { return mSet; }

 private:
  struct TrackCloser {
    void operator()(sd_bus_track* track) const { sd_bus_track_unref(track); }
  };
  /// A bus connection that pushes settings. This service needs one match rule for each such
  /// connection, and by default the bus allows this service 512 match rules. Every program may ask
  /// questions, so the service uses no match rule for a connection that only asks.
  struct Sender {
    std::unique_ptr<sd_bus_track, TrackCloser> track;
    bool isOverLimit = false;  ///< the sender has reached its limit; logged once
  };

  static int onCreate(sd_bus_message* call, void* self, sd_bus_error* error);
  static int onDestroy(sd_bus_message* call, void* self, sd_bus_error* error);
  static int onFind(sd_bus_message* call, void* self, sd_bus_error* error);
  static int onSenderGone(sd_bus_track* track, void* self);
  int create(sd_bus_message* call, sd_bus_error* error);
  int find(sd_bus_message* call, sd_bus_error* error);
  uid_t userOf(sd_bus_message* call) const;
  void ask(const std::shared_ptr<BusMessage>& call, const std::string& caller);
  Sender& senderOf(const std::string& name);
  void notifyChange();
  std::string proxyText(const std::optional<std::vector<std::string>>& answer) const;

  sd_bus* mBus;
  DaemonLink& mDaemon;
  std::function<void()> mChanged;
  NetworkSet mSet;
  bool mAnswersAll = false;
  QuestionQueue mQuestions;
  std::map<std::string, Sender> mSenders;
  BusSlot mManager;
  BusSlot mClient;
};

}  // namespace settings
