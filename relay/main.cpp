// proxymanager-relay: a proxy on loopback that asks the daemon for each request.
#include <getopt.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/log_line.h"
#include "base/small_file.h"
#include "base/visible.h"
#include "relay/configuration.h"
#include "relay/listeners.h"
#include "relay/relay.h"
#include "relay/walls.h"

namespace {

struct Options {
  std::string configuration = "/etc/proxymanager/relay.conf";
  bool isConfigurationNamed = false;
  std::vector<std::string> listen;
};

constexpr char kUsage[] =
    "usage: proxymanager-relay [options]\n"
    "\n"
    "A proxy for programs that know one fixed proxy: it asks proxymanagerd for each request and\n"
    "goes where the answer says.\n"
    "\n"
    "  --config FILE            read this file (default: /etc/proxymanager/relay.conf, if it exists)\n"
    "  --listen ADDRESS:PORT    listen there; may be given more than once. An IPv6 address stands in\n"
    "                           brackets\n"
    "  --listen unix:PATH       listen on a Unix socket\n"
    "  --check                  read the configuration, report its problems, and end\n"
    "  --help                   print this text\n"
    "  --version                print the version\n"
    "\n"
    "Without --listen the sockets that systemd passes are used, and without those 127.0.0.1:3128 and\n"
    "[::1]:3128. See proxymanager-relay(8) and relay.conf(5).\n";

constexpr int kUsageError = 2;

[[noreturn]] void usageError(const char* text) {
  std::fprintf(stderr, "proxymanager-relay: %s\n%s", text, kUsage);
  std::exit(kUsageError);
}

Options parse(int argc, char** argv, bool& checks) {
  static const option longOptions[] = {
      {"config", required_argument, nullptr, 'c'}, {"listen", required_argument, nullptr, 'l'},
      {"check", no_argument, nullptr, 'k'},        {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'v'},      {nullptr, 0, nullptr, 0}};
  Options options;
  for (int option = 0; (option = getopt_long(argc, argv, "h", longOptions, nullptr)) != -1;) {
    switch (option) {
      case 'c':
        options.configuration = optarg;
        options.isConfigurationNamed = true;
        break;
      case 'l':
        options.listen.emplace_back(optarg);
        break;
      case 'k':
        checks = true;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        std::exit(0);
      case 'v':
        std::puts("proxymanager-relay " PROXYMANAGER_VERSION);
        std::exit(0);
      default:
        std::fputs(kUsage, stderr);
        std::exit(kUsageError);
    }
  }
  if (optind != argc) usageError("no arguments are taken");
  return options;
}

/// Blocks the signals that end the relay. If such a signal arrives during the start, run() handles
/// it, and the relay ends with status 0.
void holdEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : relay::kEndSignals) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
}

/// Logs the problems of the configuration file `path`. @return whether there are none
bool report(const std::string& path, const std::vector<relay::Problem>& problems) {
  for (const auto& problem : problems) {
    const std::string line = problem.line != 0 ? ":" + std::to_string(problem.line) : "";
    logLine(LOG_ERR, "relay: configuration: %s",
            base::visible(path + line + ": " + problem.text).c_str());
  }
  return problems.empty();
}

}  // namespace

int main(int argc, char** argv) {
  holdEndSignals();
  bool checks = false;
  const Options options = parse(argc, argv, checks);
  const bool isTold = checks || isatty(STDERR_FILENO) != 0;
  openlog("proxymanager-relay", LOG_PID | LOG_NDELAY | (isTold ? LOG_PERROR : 0), LOG_DAEMON);
  // The process holds passwords of proxies: no debugger may attach, and no core file is written.
  prctl(PR_SET_DUMPABLE, 0);
  try {
    relay::Configured configured;
    if (!report(options.configuration,
                relay::load(options.configuration, !options.isConfigurationNamed, configured))) {
      return EXIT_FAILURE;
    }
    for (const auto& warning : configured.warnings) {
      logLine(LOG_WARNING, "relay: configuration: %s",
              base::visible(options.configuration + ": " + warning).c_str());
    }
    if (checks) return EXIT_SUCCESS;
    auto sockets = relay::listen(options.listen);
    if (const auto failure = relay::raiseWalls()) throw std::runtime_error(*failure);
    return relay::run(configured, std::move(sockets));
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "relay: cannot start: %s", base::visible(error.what()).c_str());
    return EXIT_FAILURE;
  }
}
