// proxymanager-fetch: downloads one URL for the daemon that started it.
//
// The process has its three standard descriptors and one more: its end of a socket pair. First it
// prepares libcurl; this step reads no foreign bytes. Then it puts restrictions on itself
// (walls.h), and after that it reads the request. It reports that it has a libcurl handle. Then the
// daemon opens the file for the body and sends the descriptor. The process sends one result and
// ends. The daemon enforces the time limit: it kills a process that takes too long.
#include <curl/curl.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "fetcher/child/transfer.h"
#include "fetcher/child/walls.h"
#include "fetcher/wire/packets.h"

namespace {

enum ExitStatus { kDone = 0, kRefused = 1 };

bool sendPacket(const std::string& packet) {
  return send(fetcher::kFetchSocket, packet.data(), packet.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(packet.size());
}

std::optional<fetcher::FetchRequest> receiveRequest() {
  const auto buffer = std::make_unique_for_overwrite<char[]>(fetcher::kPacketBufferBytes);
  ssize_t length = 0;
  do {
    length = recv(fetcher::kFetchSocket, buffer.get(), fetcher::kPacketBufferBytes, 0);
  } while (length < 0 && errno == EINTR);
  if (length <= 0) return std::nullopt;
  return fetcher::decodeRequest({buffer.get(), static_cast<std::size_t>(length)});
}

/// @return the descriptor that comes with the next packet; none if the packet has none or the
/// socket is closed
base::UniqueFd receiveFile() {
  char byte = 0;
  iovec part{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t length = 0;
  do {
    length = recvmsg(fetcher::kFetchSocket, &message, MSG_CMSG_CLOEXEC);
  } while (length < 0 && errno == EINTR);
  const cmsghdr* const header = length > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return {};
  int fd = -1;
  std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
  return base::UniqueFd(fd);
}

/// The paths of certificates that are compiled into libcurl. A path may be a link, because
/// administrators replace such a file by a link.
std::vector<const char*> certificates() {
  std::vector<const char*> paths;
  const curl_version_info_data* const build = curl_version_info(CURLVERSION_NOW);
  if (build == nullptr || build->age < CURLVERSION_SEVENTH) return paths;
  for (const char* path : {build->cainfo, build->capath}) {
    if (path != nullptr) paths.push_back(path);
  }
  return paths;
}

}  // namespace

int main() {
  // URLs are UTF-8. With this locale libcurl understands international names in them.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // A second heap of the allocator would use a part of the limited address space.
  mallopt(M_ARENA_MAX, 1);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  fetcher::FetchReady ready;
  curl_global_init(CURL_GLOBAL_ALL);
  CURL* const handle = curl_easy_init();
  if (handle == nullptr) ready.state = fetcher::FetchReady::State::noHandle;
  if (const auto failure =
          fetch_child::raiseWalls(fetcher::kMostScriptBytes, certificates(), ready.limitsFiles)) {
    ready.state = fetcher::FetchReady::State::noWalls;
    ready.problem = *failure;
  }
  if (!sendPacket(encode(ready)) || ready.state != fetcher::FetchReady::State::ready) {
    return kRefused;
  }
  const auto request = receiveRequest();
  if (!request) return kRefused;
  const base::UniqueFd file = receiveFile();
  if (!file) return kRefused;
  sendPacket(encode(fetch_child::transfer(handle, *request, file.get())));
  // Nothing is cleaned up, because a clean-up would wait for a thread that may still wait for a
  // silent name server.
  _exit(kDone);
}
