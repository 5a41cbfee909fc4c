// Measures the cost of an answer for a program that uses the client library. Prints one line of
// JSON, with times in microseconds:
// - the time of the first answer in a new process, and the time of a plain connection and call
// - the time of a remembered answer
// - the rate of remembered answers of two threads, compared with the rate of one thread
//
// usage: client_load SAMPLES, with a daemon on the system bus
#include <proxymanager/client.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* kUrl = "http://www.example.org/index.html";
constexpr int kLimitMs = 10'000;
constexpr std::size_t kRemembered = 200'000;  ///< answers in one measurement (tens of milliseconds)
constexpr int kRounds = 15;
constexpr int kHosts = 32;

using Clock = std::chrono::steady_clock;

double microseconds(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

void ask(proxymanager_client* client, const char* url = kUrl) {
  proxymanager_answer* answer = nullptr;
  require(proxymanager_get(client, url, kLimitMs, &answer) == PROXYMANAGER_OK, "an answer");
  proxymanager_answer_unref(answer);
}

void askBare() {
  sd_bus* bus = nullptr;
  require(sd_bus_open_system(&bus) >= 0, "a connection");
  sd_bus_message* reply = nullptr;
  require(sd_bus_call_method(bus, "com.zentu.ProxyManagerService", "/com/zentu/ProxyManagerService",
                             "com.zentu.ProxyManagerServiceInterface", "getProxyurl", nullptr,
                             &reply, "s", kUrl) >= 0,
          "a reply");
  sd_bus_message_unref(reply);
  sd_bus_flush_close_unref(bus);
}

void askOnce() {
  proxymanager_client* const client = proxymanager_client_new(0);
  require(client != nullptr, "a client");
  ask(client);
  // The client is not freed here: the process ends, and only the answer is measured.
}

/// The time of `question`, in microseconds, in a process that has done nothing before.
double inFreshProcess(void (*question)()) {
  int ends[2];
  require(pipe(ends) == 0, "a pipe");
  const pid_t child = fork();
  require(child >= 0, "a process");
  if (child == 0) {
    const auto begin = Clock::now();
    question();
    const double taken = microseconds(Clock::now() - begin);
    _exit(write(ends[1], &taken, sizeof taken) == sizeof taken ? 0 : 1);
  }
  close(ends[1]);
  double taken = 0;
  const auto count = read(ends[0], &taken, sizeof taken);
  close(ends[0]);
  waitpid(child, nullptr, 0);
  require(count == sizeof taken, "an answer of a fresh process");
  return taken;
}

/// The URLs that a page loads, each from another host.
std::vector<std::string> urlsOfAPage() {
  std::vector<std::string> urls;
  for (int host = 0; host < kHosts; ++host) {
    urls.push_back("http://host" + std::to_string(host) + ".example.org/index.html");
  }
  return urls;
}

/// Microseconds for one remembered answer if this number of threads asks at the same time.
double remembered(proxymanager_client* client, const std::vector<std::string>& urls, int threads) {
  std::vector<std::thread> asking;
  const auto begin = Clock::now();
  for (int thread = 0; thread < threads; ++thread) {
    asking.emplace_back([client, &urls] {
      for (std::size_t i = 0; i < kRemembered; ++i) ask(client, urls[i % urls.size()].c_str());
    });
  }
  for (auto& thread : asking) thread.join();
  return microseconds(Clock::now() - begin) / kRemembered;
}

}  // namespace

int main(int argc, char** argv) {
  const int samples = argc == 2 ? std::atoi(argv[1]) : 0;
  if (samples <= 0) {
    std::fprintf(stderr, "usage: client_load SAMPLES\n");
    return 2;
  }
  std::vector<double> bare;
  std::vector<double> first;
  std::vector<double> more;
  for (int i = 0; i < samples; ++i) {
    bare.push_back(inFreshProcess(askBare));
    first.push_back(inFreshProcess(askOnce));
    more.push_back(first.back() - bare.back());
  }
  proxymanager_client* const client = proxymanager_client_new(0);
  require(client != nullptr, "a client");
  const auto urls = urlsOfAPage();
  for (const auto& url : urls) ask(client, url.c_str());
  std::vector<double> one;
  std::vector<double> rates;  // rate of two threads divided by the rate of one thread
  for (int round = 0; round < kRounds; ++round) {
    one.push_back(remembered(client, urls, 1));
    rates.push_back(2 * one.back() / remembered(client, urls, 2));
  }
  std::printf(
      "{\"bare_us\": %.1f, \"first_us\": %.1f, \"more_us\": %.1f, \"remembered_us\": %.4f, "
      "\"two_threads\": %.2f}\n",
      median(bare), median(first), median(more), median(one), median(rates));
  proxymanager_client_free(client);
  return 0;
}
