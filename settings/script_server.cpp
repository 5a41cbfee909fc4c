#include "settings/script_server.h"

#include <arpa/inet.h>
#include <dirent.h>
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

namespace settings {

namespace {

constexpr std::string_view kSuffix = ".pac";
constexpr std::size_t kDigits = 16;
/// What one connection may use for its request, in bytes: the daemon's request has some 200.
constexpr std::size_t kRequestBytes = 8192;

struct ResponseCloser {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, ResponseCloser>;

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

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

Response response(unsigned& status, const std::string& path) {
  base::UniqueFd file(path.empty() ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat state {};
  if (!file || fstat(file.get(), &state) != 0 || !S_ISREG(state.st_mode)) {
    status = MHD_HTTP_NOT_FOUND;
    return Response(MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));
  }
  status = MHD_HTTP_OK;
  Response made(MHD_create_response_from_fd(static_cast<std::uint64_t>(state.st_size), file.get()));
  if (!made) return made;
  static_cast<void>(file.release());  // the response closes it
  MHD_add_response_header(made.get(), MHD_HTTP_HEADER_CONTENT_TYPE,
                          "application/x-ns-proxy-autoconfig");
  return made;
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
    : mFolder(std::move(folder)),
      mBase(baseUrl(listening.get())),
      mTimer(event, [this] { run(); }) {
  mDaemon.reset(
      MHD_start_daemon(MHD_USE_EPOLL, 0, nullptr, nullptr, &onRequest, this,
                       MHD_OPTION_LISTEN_SOCKET, listening.get(), MHD_OPTION_CONNECTION_LIMIT,
                       kMaxHttpConnections, MHD_OPTION_CONNECTION_TIMEOUT, kHttpIdleSeconds,
                       MHD_OPTION_CONNECTION_MEMORY_LIMIT, kRequestBytes, MHD_OPTION_END));
  if (!mDaemon) fail("the HTTP server cannot be started");
  static_cast<void>(listening.release());  // the server closes it
  const auto* info = MHD_get_daemon_info(mDaemon.get(), MHD_DAEMON_INFO_EPOLL_FD);
  sd_event_source* source = nullptr;
  require(sd_event_add_io(event, &source, info->epoll_fd, EPOLLIN, onReady, this),
          "sd_event_add_io");
  mSource.reset(source);
}

int ScriptServer::onReady(sd_event_source* source, int, std::uint32_t, void* self) {
  return guarded(sd_event_source_get_event(source),
                 [self] { static_cast<ScriptServer*>(self)->run(); });
}

// The server closes silent connections only when it runs, so it is woken for that.
void ScriptServer::run() {
  MHD_run(mDaemon.get());
  MHD_UNSIGNED_LONG_LONG milliseconds = 0;
  if (MHD_get_timeout(mDaemon.get(), &milliseconds) == MHD_YES) {
    mTimer.set(std::chrono::milliseconds{static_cast<std::int64_t>(milliseconds)});
  } else {
    mTimer.cancel();
  }
}

MHD_Result ScriptServer::onRequest(void* self, MHD_Connection* connection, const char* url,
                                   const char* method, const char*, const char*, std::size_t*,
                                   void**) {
  try {
    return static_cast<const ScriptServer*>(self)->answer(connection, url, method);
  } catch (const std::exception&) {
    return MHD_NO;  // no memory: the connection is closed
  }
}

MHD_Result ScriptServer::answer(MHD_Connection* connection, const char* url,
                                const char* method) const {
  const bool isRead = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 ||
                      std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
  const std::string_view name = url[0] == '/' ? url + 1 : url;
  unsigned status = 0;
  const Response made = response(
      status, isRead && isScriptName(name) ? mFolder + "/" + std::string(name) : std::string());
  if (!made) return MHD_NO;
  return MHD_queue_response(connection, status, made.get());
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
  const std::unique_ptr<DIR, FolderCloser> folder(opendir(mFolder.c_str()));
  if (!folder) return;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view found = entry->d_name;
    const bool isOurs = isScriptName(found) || found.ends_with(".pac.new");
    if (isOurs && found != name) unlinkat(dirfd(folder.get()), entry->d_name, 0);
  }
}

}  // namespace settings
