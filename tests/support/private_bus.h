// A message bus of the test's own, as the system bus of this process.
#pragma once

#include <sys/types.h>

#include <string>

class PrivateBus {
 public:
  /// Starts dbus-daemon in a temporary folder and names it in DBUS_SYSTEM_BUS_ADDRESS. Before the
  /// first connection: the bus library reads the variable once.
  /// @param extra further elements of its configuration
  explicit PrivateBus(const std::string& extra = "");
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Stops the bus, so that it neither reads nor answers, and lets it go on.
  void pause() const;
  void goOn() const;

  /// Ends the bus at once.
  void kill();

  /// Starts it again at the same address.
  void start();

 private:
  std::string mFolder;
  pid_t mPid = -1;
};
