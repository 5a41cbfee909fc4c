// One connection to the message bus, for the client's thread. It sends questions, notices when the
// daemon starts and ends, and receives the daemon's signal that answers have changed.
//
// No function waits or reads a clock: the client's thread polls the descriptor, and ends the link
// if the bus is silent. A link ends with its connection, and the client makes a new link. Any
// program on the bus can send a signal directly to this connection, so a signal counts only if its
// sender owns the daemon's name.
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

  /// A question that has been sent. After the question is destroyed, its reply is ignored. Only the
  /// thread of the link may destroy the question.
  class Asked {
   public:
    bool isSent() const { return mSlot != nullptr; }

   private:
    friend class BusLink;
    BusLink* mLink = nullptr;
    const std::string* mUrl = nullptr;  ///< owned by the caller
    int mAttempts = 0;                  ///< how often the question was sent
    /// An answer for which the credentials are still missing. mIsFromOwner is the `isFromOwner` of
    /// replied().
    std::optional<ProxyAnswer> mAnswer;
    bool mIsFromOwner = false;
    std::unique_ptr<sd_bus_slot, SlotCloser> mSlot;
  };

  /// Called during process(). Throws nothing.
  class Listener {
   public:
    /// The question has its reply and may be destroyed. `isFromOwner` is true if two conditions are
    /// true: the owner of the daemon's name sent the reply, and the link receives the signals about
    /// changes.
    virtual void replied(Asked& asked, const Outcome& outcome, bool isFromOwner) noexcept = 0;
    virtual void answersChanged() noexcept = 0;
    /// Reports whether the daemon's name has an owner. Called when the bus first reports the owner
    /// to the link, and at each change.
    virtual void ownerChanged(bool isThere) noexcept = 0;

   protected:
    ~Listener() = default;
  };

  /// @param flags any of PROXYMANAGER_NO_START, PROXYMANAGER_WITH_CREDENTIALS and
  /// PROXYMANAGER_REFUSE
  BusLink(unsigned flags, Listener& listener) : mFlags(flags), mListener(listener) {}
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Begins to connect. @return 0, or an errno
  int open(const char* address);

  /// Whether questions can be sent.
  bool isReady() const { return mIsReady; }

  /// Whether the bus has answered all requests that the link itself makes. An error is an answer,
  /// too.
  bool isSettled() const { return mAnswered == kOwnCalls; }

  /// Handles one message that has arrived. @return a positive number if there may be more messages;
  /// 0 if there was none; a negative errno if the connection failed or has ended
  int process();

  /// Sends a question.
  /// @param url must stay valid as long as `asked`
  /// @return 0, or an errno
  int send(const std::string& url, Asked& asked);

  /// The descriptor and the events for poll(). The wait must end at wakeAt() at the latest.
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
  int ask(Asked& asked);
  int call(const char* member, const char* url, sd_bus_message_handler_t handler, Asked& asked);
  int follow();
  void setOwner(const char* owner);
  bool isFromOwner(sd_bus_message* message) const;

  /// The link's own calls: two match rules, and the request for the owner of the daemon's name.
  static constexpr int kOwnCalls = 3;

  unsigned mFlags;
  Listener& mListener;
  std::unique_ptr<sd_bus, BusCloser> mBus;
  bool mIsReady = false;
  int mAnswered = 0;                  ///< how many of the link's own calls were answered
  int mMatches = 0;                   ///< how many match rules the bus has accepted
  std::optional<std::string> mOwner;  ///< unique name of the daemon; empty if it does not run
};

}  // namespace client::library
