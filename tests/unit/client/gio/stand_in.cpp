#include "tests/unit/client/gio/stand_in.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

constexpr const char* kName = "com.zentu.ProxyManagerService";
constexpr const char* kPath = "/com/zentu/ProxyManagerService";
constexpr const char* kInterface = "com.zentu.ProxyManagerServiceInterface";

/// "http://MODE/?a_b;c" as "MODE", "a b", "c". @return 0, or a negative errno
int appendAnswer(sd_bus_message* reply, const std::string& url) {
  const auto host = url.find("://") + 3;
  const auto slash = url.find('/', host);
  std::string texts = url.substr(host, slash - host);
  if (const auto mark = url.find('?'); mark != std::string::npos)
    texts += ';' + url.substr(mark + 1);
  std::replace(texts.begin(), texts.end(), '_', ' ');
  int result = sd_bus_message_open_container(reply, 'a', "s");
  for (std::string::size_type begin = 0; result >= 0 && begin <= texts.size();) {
    const auto end = std::min(texts.find(';', begin), texts.size());
    result = sd_bus_message_append(reply, "s", texts.substr(begin, end - begin).c_str());
    begin = end + 1;
  }
  return result < 0 ? result : sd_bus_message_close_container(reply);
}

/// Answers a getProxyurl; other calls are the bus library's.
int onMessage(sd_bus_message* call, void* asked, sd_bus_error*) {
  const char* url = nullptr;
  if (!sd_bus_message_is_method_call(call, kInterface, "getProxyurl")) return 0;
  if (sd_bus_message_read(call, "s", &url) < 0) return -EINVAL;
  if (write(*static_cast<int*>(asked), "?", 1) != 1) return -EPIPE;
  const std::string text = url;
  if (text.find("://hold/") != std::string::npos) return 1;
  sd_bus_message* reply = nullptr;
  int result = sd_bus_message_new_method_return(call, &reply);
  if (result >= 0) result = appendAnswer(reply, text);
  if (result >= 0) result = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return result < 0 ? result : 1;
}

[[noreturn]] void serve(int asked) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies takes it along
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0 ||
      sd_bus_add_object(bus, nullptr, kPath, onMessage, &asked) < 0 ||
      sd_bus_request_name(bus, kName, 0) < 0) {
    _exit(1);
  }
  if (write(asked, "!", 1) != 1) _exit(1);
  while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) continue;
  _exit(1);
}

}  // namespace

StandIn::StandIn() {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe");
  mPid = fork();
  if (mPid == 0) {
    close(ends[0]);
    serve(ends[1]);
  }
  close(ends[1]);
  mAsked = ends[0];
  waitUntilAsked();  // its first byte says that it has the name
}

StandIn::~StandIn() {
  kill(mPid, SIGKILL);
  waitpid(mPid, nullptr, 0);
  close(mAsked);
}

void StandIn::waitUntilAsked() const {
  char byte = 0;
  if (read(mAsked, &byte, 1) != 1) throw std::runtime_error("the stand-in is gone");
}

bool StandIn::hasBeenAsked() const {
  pollfd readable{mAsked, POLLIN, 0};
  return poll(&readable, 1, 0) == 1;
}
