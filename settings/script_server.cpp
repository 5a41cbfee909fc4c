#include "settings/script_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "base/log_line.h"
#include "base/open_folder.h"

namespace settings {

namespace {

constexpr std::string_view kSuffix = ".pac";
constexpr std::size_t kDigits = 16;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string baseUrl(int listening) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    fail("getsockname");
  }
  if (address.sin_family != AF_INET || address.sin_addr.s_addr != htonl(INADDR_LOOPBACK)) {
    throw std::system_error(EINVAL, std::generic_category(),
                            "the script socket does not listen on 127.0.0.1");
  }
  return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) fail("write");
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

base::UniqueFd listenOnLoopback(std::uint16_t port) {
  base::UniqueFd opened(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!opened) fail("socket");
  const int on = 1;
  setsockopt(opened.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (bind(opened.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(opened.get(), SOMAXCONN) != 0) {
    fail("cannot listen on 127.0.0.1");
  }
  return opened;
}

// http://www.isthe.com/chongo/tech/comp/fnv/: offset basis and prime of the 64-bit form.
std::string scriptName(std::string_view script) {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char byte : script) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 1099511628211ULL;
  }
  std::array<char, kDigits + 1> digits{};
  std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(hash));
  return digits.data() + std::string(kSuffix);
}

bool isScriptName(std::string_view name) {
  if (name.size() != kDigits + kSuffix.size() || !name.ends_with(kSuffix)) return false;
  return name.find_first_not_of("0123456789abcdef") == kDigits;
}

ScriptServer::ScriptServer(sd_event* event, base::UniqueFd listening, std::string folder)
    : mEvent(event),
      mListening(std::move(listening)),
      mFolder(std::move(folder)),
      mBase(baseUrl(mListening.get())),
      mAcceptPause(event, [this] {
        require(sd_event_source_set_enabled(mSource.get(), SD_EVENT_ON),
                "sd_event_source_set_enabled");
      }) {
  // The socket from systemd is blocking. If a connection ends before it is accepted, accept() would
  // block the service.
  const int flags = fcntl(mListening.get(), F_GETFL);
  if (flags < 0 || fcntl(mListening.get(), F_SETFL, flags | O_NONBLOCK) != 0) fail("fcntl");
  sd_event_source* source = nullptr;
  require(sd_event_add_io(event, &source, mListening.get(), EPOLLIN, onConnection, this),
          "sd_event_add_io");
  mSource.reset(source);
  require(sd_event_source_set_priority(source, kScriptPriority), "sd_event_source_set_priority");
}

int ScriptServer::onConnection(sd_event_source* source, int, std::uint32_t, void* self) {
  return guarded(sd_event_source_get_event(source),
                 [self] { static_cast<ScriptServer*>(self)->accept(); });
}

// Accepts one connection in each turn of the loop. So the loop serves the open connections before a
// new connection can end the oldest one.
void ScriptServer::accept() {
  base::UniqueFd accepted(
      accept4(mListening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!accepted) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    logLine(LOG_WARNING, "settings: no connection for a script, next try in %lld s: %s",
            static_cast<long long>(kAcceptPause.count()), std::strerror(errno));
    require(sd_event_source_set_enabled(mSource.get(), SD_EVENT_OFF),
            "sd_event_source_set_enabled");
    mAcceptPause.set(kAcceptPause);
    return;
  }
  if (mConnections.size() == kMaxConnections) mConnections.pop_front();
  ScriptConnection::Owner& owner = *this;
  mConnections.emplace_back(mEvent, std::move(accepted), owner);
}

base::UniqueFd ScriptServer::openScript(const std::string& name) const {
  if (!isScriptName(name)) return {};
  // O_NONBLOCK, because the open of a FIFO without a writer would block the service.
  base::UniqueFd file(
      open((mFolder + "/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat state {};
  if (!file || fstat(file.get(), &state) != 0 || !S_ISREG(state.st_mode)) return {};
  return file;
}

void ScriptServer::connectionEnded(ScriptConnection& connection) {
  mConnections.remove_if([&connection](const auto& entry) { return &entry == &connection; });
}

std::string ScriptServer::publish(std::string_view script) {
  const std::string name = scriptName(script);
  const std::string path = mFolder + "/" + name;
  const std::string temporary = path + ".new";
  unlink(temporary.c_str());
  {
    const base::UniqueFd file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file) fail("cannot keep the script");
    writeAll(file.get(), script);
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) fail("cannot keep the script");
  removeAllBut(name);
  return mBase + name;
}

void ScriptServer::removeAllBut(std::string_view name) const {
  const base::OpenFolder folder(opendir(mFolder.c_str()));
  if (!folder) return;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view found = entry->d_name;
    const bool isOurs = isScriptName(found) || found.ends_with(".pac.new");
    if (isOurs && found != name) unlinkat(dirfd(folder.get()), entry->d_name, 0);
  }
}

}  // namespace settings
