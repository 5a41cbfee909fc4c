#include "client/library/noted_socket.h"

#include <sys/stat.h>
#include <unistd.h>

namespace client::library {

void NotedSocket::note(int fd) {
  struct stat about {};
  mFd = -1;
  if (fstat(fd, &about) != 0) return;
  mInode = about.st_ino;
  mFd = fd;
}

void NotedSocket::closeCopy() {
  struct stat about {};
  const int fd = mFd.exchange(-1);
  if (fd < 0 || fstat(fd, &about) != 0) return;
  if (S_ISSOCK(about.st_mode) && about.st_ino == mInode) close(fd);
}

}  // namespace client::library
