// Serves the script of a network manager to the daemon, which takes scripts by HTTP only.
//
// The script is kept in a file of the runtime folder whose name is made of its content. So the same
// script has the same URL after a restart of the service, another script has another one, and the
// daemon can fetch it before the network manager has pushed it again. The script is no secret:
// everybody can read what the daemon has fetched.
#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "settings/event_timer.h"
#include "settings/script_connection.h"

namespace settings {

/// How many connections are open at once. The daemon needs one. A further one ends the oldest, so
/// that nobody keeps the daemon out by opening connections.
inline constexpr std::size_t kMaxConnections = 64;
/// No connection is accepted for this time after the kernel could give none, for example because
/// there is no memory.
inline constexpr std::chrono::seconds kAcceptPause{1};
/// The port, if the service binds it itself. It is below 1024, so no other local user can
/// bind it while the service restarts and pretend to be the administrator. IANA has not assigned
/// it.
inline constexpr std::uint16_t kScriptPort = 850;

/// A listening socket on 127.0.0.1:`port`. Throws std::system_error.
base::UniqueFd listenOnLoopback(std::uint16_t port);

/// The name of the file for a script: 16 hexadecimal digits (64-bit FNV-1a) and ".pac". It is no
/// proof of the content: a program that can push scripts can have any script run.
std::string scriptName(std::string_view script);
bool isScriptName(std::string_view name);

class ScriptServer final : ScriptConnection::Owner {
 public:
  /// @param listening a socket that listens on loopback
  /// @param folder the runtime folder, which exists and is this user's
  /// Throws std::system_error.
  ScriptServer(sd_event* event, base::UniqueFd listening, std::string folder);
  ScriptServer(const ScriptServer&) = delete;
  ScriptServer& operator=(const ScriptServer&) = delete;

  /// Keeps `script` and removes the one before. @return its URL. Throws std::system_error if the
  /// file cannot be written.
  std::string publish(std::string_view script);

  /// Removes all scripts.
  void withdraw() { removeAllBut({}); }

 private:
  base::UniqueFd openScript(const std::string& name) const override;
  void connectionEnded(ScriptConnection& connection) override;
  void accept();
  static int onConnection(sd_event_source*, int, std::uint32_t, void* self);
  void removeAllBut(std::string_view name) const;

  sd_event* mEvent;
  base::UniqueFd mListening;
  std::string mFolder;
  std::string mBase;                         ///< "http://127.0.0.1:850/"
  std::list<ScriptConnection> mConnections;  ///< the oldest first
  EventTimer mAcceptPause;
  EventSource mSource;
};

}  // namespace settings
