#include "fetcher/fetch_process.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>

namespace fetcher {

namespace {

using base::UniqueFd;

// libcurl reads the first seven variables, as in any program. The C library's resolver reads the
// other ones.
constexpr const char* kPassedVariables[] = {
    "http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy",   "ALL_PROXY",
    "no_proxy",   "NO_PROXY",    "RES_OPTIONS", "LOCALDOMAIN",
};

std::vector<std::string> passedEnvironment() {
  std::vector<std::string> variables;
  for (const char* name : kPassedVariables) {
    const char* const value = std::getenv(name);
    if (value != nullptr) variables.push_back(std::string(name) + "=" + value);
  }
  return variables;
}

/// The timeout for poll() until `deadline`. The timeout is rounded up. If it were rounded down,
/// poll() would return too early, and the caller would call poll() several times.
int millisecondsLeft(Deadline deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

}  // namespace

std::string fetchProgram() {
  return sandbox::programInLibexec("proxymanager-fetch", PROXYMANAGER_FETCH_PATH);
}

FetchProcess::FetchProcess(std::unique_ptr<sandbox::ChildProcess> child, UniqueFd socket)
    : mSocket(std::move(socket)), mChild(std::move(child)) {}

std::unique_ptr<FetchProcess> FetchProcess::start(const std::string& program,
                                                  std::string& problem) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    problem = "no socket pair: " + std::generic_category().message(errno);
    return nullptr;
  }
  UniqueFd ours(ends[0]);
  const UniqueFd theirs(ends[1]);
  static_assert(kFetchSocket == 3);
  auto child =
      sandbox::ChildProcess::start({program, {theirs.get()}, passedEnvironment()}, problem);
  if (!child) return nullptr;
  return std::unique_ptr<FetchProcess>(new FetchProcess(std::move(child), std::move(ours)));
}

bool FetchProcess::send(const FetchRequest& request) {
  const std::string packet = encode(request);
  return ::send(mSocket.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(packet.size());
}

bool FetchProcess::sendFile(int file) {
  char byte = 0;
  iovec part{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof file)> control{};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof file);
  std::memcpy(CMSG_DATA(header), &file, sizeof file);
  return sendmsg(mSocket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

bool FetchProcess::waitReadable(Deadline deadline) {
  pollfd entry{mSocket.get(), POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, millisecondsLeft(deadline));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

/// Receives one packet. The kernel drops descriptors that come with the packet, because the call
/// does not ask for them.
std::optional<std::string> FetchProcess::receive(Deadline deadline) {
  const auto packet = std::make_unique_for_overwrite<char[]>(kPacketBufferBytes);
  ssize_t length = 0;
  do {
    if (!waitReadable(deadline)) {
      mFailure = Failure::tooLate;
      return std::nullopt;
    }
    length = recv(mSocket.get(), packet.get(), kPacketBufferBytes, MSG_DONTWAIT);
    // If the child ends before it has read the request, the connection is reset. The kernel reports
    // the reset once, before it returns the packets that the child has sent.
  } while (length < 0 && (errno == EINTR || errno == EAGAIN || errno == ECONNRESET));
  if (length <= 0) {
    // An empty packet looks like the end of the connection, but our child never sends one.
    mFailure = Failure::ended;
    return std::nullopt;
  }
  return std::string(packet.get(), static_cast<std::size_t>(length));
}

std::optional<FetchReady> FetchProcess::receiveReady(Deadline deadline) {
  const auto packet = receive(deadline);
  if (!packet) return std::nullopt;
  auto ready = decodeReady(*packet);
  if (!ready) mFailure = Failure::broken;
  return ready;
}

// The child must have ended before its file is used, because it has a descriptor with which it can
// write the file.
std::optional<FetchResult> FetchProcess::receiveResult(Deadline deadline) {
  const auto packet = receive(deadline);
  if (!packet) return std::nullopt;
  auto result = decodeResult(*packet);
  if (!result || receive(deadline)) {
    mFailure = Failure::broken;
    return std::nullopt;
  }
  if (mFailure != Failure::ended) return std::nullopt;
  mFailure = Failure::none;
  return result;
}

}  // namespace fetcher
