// Uses this tree from another project: it links and runs the library, and gets an answer. It also
// downloads a file. For this, the library starts proxymanager-fetch; the output shows its path.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "base/log_line.h"
#include "fetcher/pac_fetcher.h"
#include "platform/process/crash_handler.h"
#include "platform/process/thread_name.h"

namespace fs = std::filesystem;

namespace {

const std::string kBody = "function FindProxyForURL() {}\n";

/// @return the path of the program that this process's only child process runs, or "none" if there
/// is no child process
std::string childProgram() {
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream children(thread.path() / "children");
    std::string pid;
    if (children >> pid) return fs::read_symlink("/proc/" + pid + "/exe");
  }
  return "none";
}

/// Answers one request. @return the program that sent the request
std::string serveOnce(int listening) {
  const int connection = accept(listening, nullptr, nullptr);
  char request[4096];
  [[maybe_unused]] const auto count = read(connection, request, sizeof request);
  std::string program = childProgram();
  const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" + kBody;
  [[maybe_unused]] const auto sent = write(connection, answer.data(), answer.size());
  close(connection);
  return program;
}

/// Downloads a file from a server in this process, and prints which program requested it. @return
/// whether the whole file has arrived
bool download() {
  const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listening, generic, length) != 0 || listen(listening, 1) != 0 ||
      getsockname(listening, generic, &length) != 0) {
    return false;
  }
  std::string program = "none";
  std::thread server([&] { program = serveOnce(listening); });
  const std::string file = fs::temp_directory_path() / ("embed." + std::to_string(getpid()));
  const bool done = PACFetcher::fileDownload(
      "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/", file);
  shutdown(listening, SHUT_RDWR);
  server.join();
  std::ifstream read(file);
  const std::string body{std::istreambuf_iterator<char>(read), {}};
  fs::remove(file);
  std::printf("downloaded by %s\n", program.c_str());
  return done && body == kBody;
}

}  // namespace

int main() {
  if (initCrashHandler() != 0) return 1;
  if (pthread_name_np(gettid(), "embed") != 0) return 2;
  logLine(LOG_DEBUG, "embed: linked");
  std::puts("linked");
  return download() ? 0 : 3;
}
