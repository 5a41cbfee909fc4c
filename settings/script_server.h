// Serves a pushed script to the daemon, which accepts scripts only by HTTP.
//
// The script is in a file of the runtime folder. The name of the file is a hash of its content. So
// the same script has the same URL after a restart of the service, and a different script has a
// different URL. After the restart, the daemon can fetch the script before the network manager has
// pushed it again. The script is no secret: every user can read the script that the daemon has
// fetched.
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

/// Maximum number of open connections. The daemon needs one connection. A further connection ends
/// the oldest one, so that no program can lock out the daemon with open connections.
inline constexpr std::size_t kMaxConnections = 64;
/// Pause after the kernel refused to accept a connection, for example because memory was exhausted.
inline constexpr std::chrono::seconds kAcceptPause{1};
/// The port, if the service binds it itself. Other local users cannot bind a port below 1024. So
/// while the service restarts, none of them can serve a false script at this port. IANA has not
/// assigned this port.
inline constexpr std::uint16_t kScriptPort = 850;

/// A listening socket on 127.0.0.1:`port`. Throws std::system_error.
base::UniqueFd listenOnLoopback(std::uint16_t port);

/// The file name of a script: 16 hexadecimal digits (64-bit FNV-1a) and ".pac". The name does not
/// prove the content. This is no risk: a program that can push a script can already choose any
/// script.
std::string scriptName(std::string_view script);
bool isScriptName(std::string_view name);

class ScriptServer final : ScriptConnection::Owner {
 public:
  /// @param listening a socket that listens on loopback
  /// @param folder the runtime folder, which exists and belongs to this user
  /// Throws std::system_error.
  ScriptServer(sd_event* event, base::UniqueFd listening, std::string folder);
  ScriptServer(const ScriptServer&) = delete;
  ScriptServer& operator=(const ScriptServer&) = delete;

  /// Stores `script` and removes the previous one. @return its URL. Throws std::system_error if the
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
