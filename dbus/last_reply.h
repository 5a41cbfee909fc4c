// The last answer as a message, for a client that asks again and is answered the same.
//
// Making a reply of parts takes the bus library a third of the instructions of a whole call: each
// header field and each text is written through its type system. A copy takes a tenth of that. And
// a program that asks mostly goes on asking, for one host after the other, of which most have the
// same proxy. One reply is kept, of the last client; with several in turn nothing is won and little
// lost.
#pragma once

#include <dbus-c++/dbus.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// For one thread. Keeps no reply of more than kMaxTexts texts or kMaxBytes bytes of text.
class LastReply {
 public:
  static constexpr std::size_t kMaxTexts = 16;    ///< more than any script gives
  static constexpr std::size_t kMaxBytes = 2048;  ///< a reply in memory all the time

  /// @param caller the sender of the call, null where it has none
  /// @param serial of the call
  /// @return the reply that says `texts`, nothing where it has to be made
  std::optional<DBus::Message> again(const char* caller, int serial,
                                     const std::vector<std::string>& texts) const;

  /// Keeps `reply`, which says `texts` to `caller`, in place of the last one.
  void keep(const char* caller, const std::vector<std::string>& texts, const DBus::Message& reply);

 private:
  struct Kept {
    std::string caller;
    std::vector<std::string> texts;
    DBus::Message reply;
  };

  std::optional<Kept> mKept;
};
