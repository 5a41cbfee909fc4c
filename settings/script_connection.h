// One connection to the script server: it reads a request, answers it, and ends.
//
// It implements only the part of HTTP that one file on loopback needs. Only the first line of a
// request is used, a request has no body, and the connection ends after the answer.
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

/// Longest head of a request, in bytes. A request of the daemon has about 200 bytes.
inline constexpr std::size_t kMaxRequestBytes = 8192;
/// Time limit of a connection. On loopback, the daemon needs milliseconds.
inline constexpr std::chrono::seconds kConnectionLimit{5};
/// Priority of the script server's sources in the event loop: they wait while another source is
/// ready. With equal priorities, the loop serves the source that became ready first. While sd-bus
/// has read messages in its queue, it becomes ready anew in each turn of the loop. So any user
/// could delay the bus with many connections.
inline constexpr std::int64_t kScriptPriority = SD_EVENT_PRIORITY_IDLE;

/// The request line, parsed.
struct ScriptRequest {
  bool isHead = false;  ///< HEAD instead of GET
  std::string name;     ///< the requested name, without the slash; not checked
};

/// Reads "GET /name HTTP/1.1", also with HEAD and with any version HTTP/1.N. Returns nothing for
/// any other line. `head` may have more lines, which are ignored.
std::optional<ScriptRequest> readRequest(std::string_view head);

/// Runs in the event loop's thread. The loop must outlive the connection.
class ScriptConnection {
 public:
  class Owner {
   public:
    /// @return the file for a request for `name`, which may be any text; empty if there is none
    virtual base::UniqueFd openScript(const std::string& name) const = 0;
    /// Destroys `connection`. Called once, and never from the constructor.
    virtual void connectionEnded(ScriptConnection& connection) = 0;

   protected:
    ~Owner() = default;
  };

  /// @param socket a non-blocking connection
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
  std::string mText;         ///< the bytes read; later the unsent part of the answer's head
  base::UniqueFd mFile;      ///< the answer's body; empty if there is none
  std::int64_t mOffset = 0;  ///< number of bytes of the file already sent
  std::int64_t mBytes = 0;   ///< number of bytes to send
  EventSource mSource;
  EventSource mLimit;
};

}  // namespace settings
