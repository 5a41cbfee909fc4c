// Gives a test process its own network, which has only a loopback interface.
#pragma once

#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

/// Call it first in a test, or after enterOwnRoot() if the test calls that. Ends the process with
/// status 77 if the machine does not allow network namespaces.
inline void enterOwnNetwork() {
  if (unshare(getuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) != 0) {
    std::fprintf(stderr, "own network: %s (these tests need network namespaces)\n",
                 std::strerror(errno));
    std::exit(77);
  }
  const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  EXPECT_EQ(ioctl(socket, SIOCSIFFLAGS, &request), 0) << std::strerror(errno);
  close(socket);
}

/// Runs a shell command that has to succeed.
inline void command(const std::string& text) {
  ASSERT_EQ(std::system(text.c_str()), 0) << text;
}

/// Returns the number of packets that `interface` has sent, or -1 if there is no such interface.
inline long sentPackets(const std::string& interface) {
  long packets = -1;
  // sysfs is not used, because it shows the network of the process that mounted it.
  std::ifstream table("/proc/self/net/dev");
  for (std::string line; std::getline(table, line);) {
    const auto colon = line.find(interface + ":");
    if (colon == std::string::npos) continue;
    long fields[10] = {};
    const char* at = line.c_str() + colon + interface.size() + 1;
    char* end = nullptr;
    for (long& field : fields) {
      field = std::strtol(at, &end, 10);
      at = end;
    }
    packets = fields[9];
  }
  return packets;
}
