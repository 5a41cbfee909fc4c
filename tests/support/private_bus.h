// A private message bus of the test. For this process, it is the system bus.
#pragma once

#include <sys/types.h>

#include <string>

class PrivateBus {
 public:
  /// Starts dbus-daemon in a temporary folder and sets its address in DBUS_SYSTEM_BUS_ADDRESS. Make
  /// the object before the first connection, because the bus library reads the variable only once.
  /// @param extra further elements of the bus's configuration
  explicit PrivateBus(const std::string& extra = "");
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// pause() stops the bus, so that it neither reads nor answers. goOn() resumes it.
  void pause() const;
  void goOn() const;

  /// Ends the bus at once.
  void kill();

  /// Starts the bus again at the same address.
  void start();

 private:
  std::string mFolder;
  pid_t mPid = -1;
};
