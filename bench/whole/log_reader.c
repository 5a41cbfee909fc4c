/* Replaces the device's syslog daemon: it reads every line from /dev/log at once and drops it. So
 * every measured program writes to a real reader, and no program has to wait for the reader.
 *
 * usage: log_reader SOCKET. When SIGTERM ends the program, it prints the number of lines and bytes
 * that it has read. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static volatile sig_atomic_t ended;

static void end(int number) {
  (void)number;
  ended = 1;
}

int main(int argc, char** argv) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (argc != 2 || strlen(argv[1]) >= sizeof address.sun_path) {
    fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
    return EXIT_FAILURE;
  }
  strcpy(address.sun_path, argv[1]);
  struct sigaction action = {.sa_handler = end}; /* no SA_RESTART: the signal interrupts the wait */
  sigaction(SIGTERM, &action, NULL);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof address) < 0 ||
      chmod(argv[1], 0666) < 0) {
    perror("log_reader");
    return EXIT_FAILURE;
  }
  puts("ready");
  fflush(stdout);
  static char line[1 << 20];
  unsigned long long lines = 0, bytes = 0;
  while (!ended) {
    const ssize_t taken = recv(fd, line, sizeof line, 0);
    if (taken < 0) continue;
    lines++;
    bytes += (unsigned long long)taken;
  }
  printf("%llu %llu\n", lines, bytes);
  return EXIT_SUCCESS;
}
