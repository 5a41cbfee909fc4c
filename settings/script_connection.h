// One connection to the script server: reads a request, answers it, and ends.
//
// This is HTTP as far as one file on loopback needs it: only the first line of a request decides,
// a request has no body, and the connection ends after the answer.
#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "settings/event_timer.h"

namespace settings {

/// Longest head of a request, in bytes: the daemon's has some 200.
inline constexpr std::size_t kMaxRequestBytes = 8192;
/// A connection ends after this time, whatever it waits for: on loopback, the daemon needs
/// milliseconds.
inline constexpr std::chrono::seconds kConnectionLimit{5};

/// What the first line of a request asks for.
struct ScriptRequest {
  bool isHead = false;  ///< HEAD instead of GET
  std::string name;     ///< without the slash; not checked
};

/// Reads "GET /name HTTP/1.1", or the same with HEAD and any version HTTP/1.N. Nothing for every
/// other line. `head` may hold more lines, which do not matter.
std::optional<ScriptRequest> readRequest(std::string_view head);

/// Runs in the event loop's thread. The loop outlives it.
class ScriptConnection {
 public:
  class Owner {
   public:
    /// @return the file that a request for `name` gets, whatever the name is; empty if there is
    /// none
    virtual base::UniqueFd openScript(const std::string& name) const = 0;
    /// Destroys `connection`. Called once, and not from the constructor.
    virtual void connectionEnded(ScriptConnection& connection) = 0;

   protected:
    ~Owner() = default;
  };

  /// @param socket a connection that does not block
  /// Throws std::system_error.
  ScriptConnection(sd_event* event, base::UniqueFd socket, Owner& owner);
  ScriptConnection(const ScriptConnection&) = delete;
  ScriptConnection& operator=(const ScriptConnection&) = delete;

 private:
  bool proceed();
  bool read();
  bool write();
  std::string_view nextChunk(std::span<char> chunk) const;
  void answer();
  void answerWith(const char* status, std::uint64_t bytes);
  static int onReady(sd_event_source*, int, std::uint32_t, void* self);
  static int onLimit(sd_event_source*, std::uint64_t, void* self);

  base::UniqueFd mSocket;
  Owner& mOwner;
  bool mIsAnswering = false;
  std::string mText;         ///< what was read; later the answer's head that is still to be sent
  base::UniqueFd mFile;      ///< the answer's body; empty without one
  std::int64_t mOffset = 0;  ///< how much of the file is sent
  std::int64_t mBytes = 0;   ///< how much is to be sent
  EventSource mSource;
  EventSource mLimit;
};

}  // namespace settings
