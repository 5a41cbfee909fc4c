// This service's view of the daemon: whether the daemon is on the bus, the daemon's configuration,
// and its answers.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "settings/configuration.h"

namespace settings {

struct BusSlotCloser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotCloser>;

struct BusMessageCloser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageCloser>;

/// Time limit for one answer of the daemon. Loading a script and one evaluation take up to 5 s
/// each, and the daemon may answer other callers first.
inline constexpr std::chrono::seconds kDaemonLimit{60};

/// The service's two connections to the daemon: one for its configuration, and one for the
/// questions of other programs. The daemon has one queue for each connection, so a hand-over never
/// waits behind questions. Callbacks run in the event loop.
class DaemonLink {
 public:
  class Listener {
   public:
    virtual void daemonAppeared() = 0;  ///< once for each owner of the name
    virtual void daemonVanished() = 0;

   protected:
    ~Listener() = default;
  };

  /// @param bus the connection for the configuration
  /// @param questions the connection for ask()
  /// Both connections are attached to one event loop and must outlive this object.
  DaemonLink(sd_bus* bus, sd_bus* questions) : mBus(bus), mQuestions(questions) {}
  DaemonLink(const DaemonLink&) = delete;
  DaemonLink& operator=(const DaemonLink&) = delete;

  /// Starts to watch the daemon's name. Throws std::system_error.
  void watch(Listener& listener);
  bool isThere() const { return !mOwner.empty(); }
  /// The user of the daemon's process. Empty if the bus has not answered yet.
  std::optional<uid_t> user() const { return mUser; }

  /// A callback that receives the daemon's configuration, or the reason why there is none.
  using Read = std::function<void(std::optional<Configuration>, const std::string& problem)>;
  /// A callback that receives an empty text if the daemon accepted the configuration, else the
  /// reason.
  using Updated = std::function<void(const std::string& problem)>;
  /// A callback that receives the daemon's answer: the mode and the entries. It receives nothing if
  /// there is no answer.
  using Answered = std::function<void(std::optional<std::vector<std::string>>)>;

  /// Each function starts one call, which ends after `limit` at the latest and never starts the
  /// daemon. The callback is called exactly once, through guarded(). It is never called before the
  /// function returns. If the link is destroyed first, the callback is never called.
  void read(Read done, std::chrono::microseconds limit = kDaemonLimit);
  void update(const Configuration& configuration, Updated done);
  void ask(const std::string& url, Answered done);

 private:
  struct Call {
    DaemonLink* link;
    std::function<void(sd_bus_message*)> done;  ///< takes the reply, which may be an error
    BusSlot slot;
  };
  void call(BusMessage message, std::function<void(sd_bus_message*)> done,
            std::chrono::microseconds limit = kDaemonLimit);
  static BusMessage newCall(sd_bus* bus, const char* member);
  void ownerIs(const std::string& owner);
  static int onReply(sd_bus_message* reply, void* call, sd_bus_error*);
  static int onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error*);
  void askForUser();
  static int onOwner(sd_bus_message* reply, void* self, sd_bus_error*);
  static int onUser(sd_bus_message* reply, void* self, sd_bus_error*);

  sd_bus* mBus;
  sd_bus* mQuestions;
  Listener* mListener = nullptr;
  std::string mOwner;          ///< unique name; empty if the daemon does not run
  std::optional<uid_t> mUser;  ///< of the process that owns the name
  BusSlot mMatch;
  BusSlot mFirstLook;
  BusSlot mUserQuestion;
  std::list<Call> mCalls;
};

}  // namespace settings
