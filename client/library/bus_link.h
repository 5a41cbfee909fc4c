// One connection to the message bus, as the client's thread uses it: asks, follows the daemon's
// coming and going and its word that answers have changed, and believes the daemon alone.
//
// Nothing here waits, or looks at a clock: the thread polls the descriptor, and gives a bus up that
// is silent. What ends the connection ends the link, and the client makes another one. The bus
// keeps nobody from sending a signal to one connection alone, so a signal counts only where its
// sender has the daemon's name.
#pragma once

#include <poll.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "client/library/outcome.h"
#include "client/library/proxy_answer.h"

namespace client::library {

using Clock = std::chrono::steady_clock;

class BusLink {
 public:
  struct SlotCloser {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  };

  /// A question on its way. Ending it gives its reply up, on the thread of the link alone.
  class Asked {
   public:
    bool isSent() const { return mSlot != nullptr; }

   private:
    friend class BusLink;
    BusLink* mLink = nullptr;
    /// The answer that waits for the credentials, and whether it may be remembered.
    std::optional<ProxyAnswer> mAnswer;
    bool mIsFromOwner = false;
    std::unique_ptr<sd_bus_slot, SlotCloser> mSlot;
  };

  /// Told from within process(). Throws nothing.
  class Listener {
   public:
    /// The question may be ended now. `isFromOwner` where who has the daemon's name answered, and
    /// changes of that would have been heard.
    virtual void replied(Asked& asked, const Outcome& outcome, bool isFromOwner) noexcept = 0;
    virtual void answersChanged() noexcept = 0;
    /// Somebody, or nobody, has the daemon's name: told when it is first known and when it changes.
    virtual void ownerChanged(bool isThere) noexcept = 0;

   protected:
    ~Listener() = default;
  };

  /// @param flags PROXYMANAGER_NO_START, PROXYMANAGER_WITH_CREDENTIALS and PROXYMANAGER_REFUSE
  BusLink(unsigned flags, Listener& listener) : mFlags(flags), mListener(listener) {}
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Begins to connect. @return 0, or an errno
  int open(const char* address);

  /// Whether questions can be sent.
  bool isReady() const { return mIsReady; }

  /// Whether the bus has answered all that the link asks of it by itself, be it with an error.
  bool isSettled() const { return mAnswered == kOwnCalls; }

  /// Takes what has arrived, one message at most. @return above 0 where there may be more, 0 where
  /// there is none, else a negative errno: the connection is not made, or ended
  int process();

  /// Sends a question. @return 0, or an errno
  int send(const std::string& url, Asked& asked);

  /// What to wait for, also until wakeAt().
  pollfd polled() const;
  std::optional<Clock::time_point> wakeAt() const;

 private:
  struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };

  static int onReply(sd_bus_message* message, void* asked, sd_bus_error*);
  static int onConfiguration(sd_bus_message* message, void* asked, sd_bus_error*);
  static int onMatch(sd_bus_message* message, void* link, sd_bus_error*);
  static int onOwnerReply(sd_bus_message* message, void* link, sd_bus_error*);
  static int onOwnerSignal(sd_bus_message* message, void* link, sd_bus_error*);
  static int onClear(sd_bus_message* message, void* link, sd_bus_error*);
  bool askConfiguration(Asked& asked);
  Outcome outcomeOf(ProxyAnswer answer) const;
  int call(const char* member, const char* url, sd_bus_message_handler_t handler, Asked& asked);
  int follow();
  void setOwner(const char* owner);
  bool isFromOwner(sd_bus_message* message) const;

  /// Two rules, and who has the daemon's name.
  static constexpr int kOwnCalls = 3;

  unsigned mFlags;
  Listener& mListener;
  std::unique_ptr<sd_bus, BusCloser> mBus;
  bool mIsReady = false;
  int mAnswered = 0;                  ///< how many of its own calls
  int mMatches = 0;                   ///< how many of the rules the bus has taken
  std::optional<std::string> mOwner;  ///< unique name of the daemon; empty where it does not run
};

}  // namespace client::library
