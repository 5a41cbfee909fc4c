// proxymanager-settings: stores the proxy configuration, because the daemon does not store it.
#include <getopt.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <system_error>

#include "base/log_line.h"
#include "base/paths.h"
#include "settings/settings_service.h"

namespace {

struct Options {
  std::string folder = "/etc/proxymanager";
  std::string runtimeFolder = "/run/proxymanager-settings";
  std::string user;
  std::uint16_t port = settings::kScriptPort;
};

constexpr char kUsage[] =
    "usage: proxymanager-settings [options]\n"
    "\n"
    "Keeps the proxy configuration and hands it to proxymanagerd.\n"
    "\n"
    "  --config FOLDER   read settings.conf and settings.d there (default: /etc/proxymanager)\n"
    "  --runtime FOLDER  keep scripts of network managers there\n"
    "                    (default: /run/proxymanager-settings)\n"
    "  --port N          serve them on 127.0.0.1:N, if systemd passes no socket (default: 850)\n"
    "  --user NAME       become this user after the port is bound\n"
    "  --help            print this text\n"
    "  --version         print the version\n"
    "\n"
    "SIGHUP reads the settings again. See proxymanager-settings(8) and settings.conf(5).\n";

constexpr int kUsageError = 2;
/// If a block of memory of at least this size is freed, glibc returns the block to the system. By
/// default, glibc raises this limit after the first long script, and then keeps the memory of every
/// long script.
constexpr int kReturnedBytes = 64 * 1024;

[[noreturn]] void usageError(const char* text) {
  std::fprintf(stderr, "proxymanager-settings: %s\n%s", text, kUsage);
  std::exit(kUsageError);
}

std::uint16_t portOf(const std::string& text) {
  std::uint16_t port = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || rest != text.data() + text.size())
    usageError("--port wants a number");
  return port;
}

Options parse(int argc, char** argv) {
  static const option longOptions[] = {{"config", required_argument, nullptr, 'c'},
                                       {"runtime", required_argument, nullptr, 'r'},
                                       {"port", required_argument, nullptr, 'p'},
                                       {"user", required_argument, nullptr, 'u'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {nullptr, 0, nullptr, 0}};
  Options options;
  for (int option = 0; (option = getopt_long(argc, argv, "h", longOptions, nullptr)) != -1;) {
    switch (option) {
      case 'c':
        options.folder = optarg;
        break;
      case 'r':
        options.runtimeFolder = optarg;
        break;
      case 'p':
        options.port = portOf(optarg);
        break;
      case 'u':
        options.user = optarg;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::exit(0);
      case 'v':
        std::puts("proxymanager-settings " PROXYMANAGER_VERSION);
        std::exit(0);
      default:
        std::fputs(kUsage, stderr);
        std::exit(kUsageError);
    }
  }
  if (optind != argc) usageError("no arguments are taken");
  return options;
}

/// The socket that systemd passes, which stays open while the service restarts. If systemd passes
/// none, the service opens a socket itself.
base::UniqueFd scriptSocket(std::uint16_t port) {
  if (sd_listen_fds(1) > 0) return base::UniqueFd(SD_LISTEN_FDS_START);
  try {
    return settings::listenOnLoopback(port);
  } catch (const std::system_error& error) {
    logLine(LOG_ERR, "settings: port %u for scripts of network managers: %s", port, error.what());
    return {};
  }
}

void makeRuntimeFolder(const std::string& folder, const passwd* owner) {
  if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(), folder);
  }
  if (owner != nullptr && lchown(folder.c_str(), owner->pw_uid, owner->pw_gid) != 0) {
    throw std::system_error(errno, std::generic_category(), folder);
  }
}

void become(const passwd& user) {
  if (initgroups(user.pw_name, user.pw_gid) != 0 || setgid(user.pw_gid) != 0 ||
      setuid(user.pw_uid) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot become another user");
  }
}

struct EventCloser {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};
struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

using Bus = std::unique_ptr<sd_bus, BusCloser>;

Bus openBus(sd_event* event) {
  sd_bus* bus = nullptr;
  settings::require(sd_bus_open_system(&bus), "the system bus");
  Bus owned(bus);
  settings::require(sd_bus_attach_event(bus, event, 0), "sd_bus_attach_event");
  // The service cannot work without the bus. It ends, and systemd starts it again.
  settings::require(sd_bus_set_exit_on_disconnect(bus, 1), "sd_bus_set_exit_on_disconnect");
  return owned;
}

int onHangUp(sd_event_source* source, const signalfd_siginfo*, void* service) {
  return settings::guarded(sd_event_source_get_event(source), [service] {
    static_cast<settings::SettingsService*>(service)->reload();
  });
}

int run(const Options& options) {
  const passwd* user = options.user.empty() ? nullptr : getpwnam(options.user.c_str());
  if (!options.user.empty() && user == nullptr) usageError("--user names no user");
  base::UniqueFd scripts = scriptSocket(options.port);
  makeRuntimeFolder(options.runtimeFolder, user);
  if (user != nullptr) become(*user);
  // The process has a password in its memory, so no debugger may attach, and no core file is
  // written.
  prctl(PR_SET_DUMPABLE, 0);

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);

  sd_event* newEvent = nullptr;
  settings::require(sd_event_default(&newEvent), "the event loop");
  const std::unique_ptr<sd_event, EventCloser> event(newEvent);
  const Bus bus = openBus(event.get());
  const Bus questions = openBus(event.get());

  const char* credentials = std::getenv("CREDENTIALS_DIRECTORY");
  settings::SettingsService::Places places;
  places.files = {options.folder, credentials != nullptr ? credentials : ""};
  places.runtimeFolder = options.runtimeFolder;
  places.pacFile = base::kPacFile;
  settings::SettingsService service(event.get(), bus.get(), questions.get(), places,
                                    std::move(scripts));
  settings::require(sd_event_add_signal(event.get(), nullptr, SIGHUP, onHangUp, &service),
                    "SIGHUP");
  settings::require(sd_event_add_signal(event.get(), nullptr, SIGTERM, nullptr, nullptr),
                    "SIGTERM");
  settings::require(sd_event_add_signal(event.get(), nullptr, SIGINT, nullptr, nullptr), "SIGINT");
  service.start();
  sd_notify(0, "READY=1");
  return sd_event_loop(event.get());
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  mallopt(M_MMAP_THRESHOLD, kReturnedBytes);
  openlog("proxymanager-settings", LOG_PID | LOG_NDELAY, LOG_DAEMON);
  try {
    return run(options);
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "settings: cannot start: %s", error.what());
    if (isatty(STDERR_FILENO) != 0)
      std::fprintf(stderr, "proxymanager-settings: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
