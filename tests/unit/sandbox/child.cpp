// A child process of the tests. It reports its descriptors and its environment through descriptor
// 3. When the other end of that descriptor is closed, it ends with status 7.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

int main(int, char**, char** environment) {
  std::string report = "descriptors";
  for (int fd = 0; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) report += " " + std::to_string(fd);
  }
  report += "\nenvironment";
  for (; *environment != nullptr; ++environment) report += " " + std::string(*environment);
  report += "\n";
  send(3, report.data(), report.size(), MSG_NOSIGNAL);
  char byte = 0;
  recv(3, &byte, 1, 0);
  return 7;
}
