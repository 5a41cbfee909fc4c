// Asks two services with the same interface the same questions, in turn, and compares the services.
//
// A round is a block of calls to one service and a block of calls to the other; every second round
// begins with the other service. So if something disturbs the machine, it disturbs both services,
// and the ratio of a round's medians hardly changes. Each client is a thread with its own
// connection. It waits for one answer before it asks the next question.
//
// usage: bus_load BASE-NAME MEASURED-NAME ROUNDS CALLS CLIENTS URL [PAC-URL]
// - URL: each "%d" in it is replaced by a new number for each call, so every call has a new host.
// - PAC-URL: if it is given, BASE-NAME is GLib's PAC runner, which has another interface. The
//   runner evaluates the script at PAC-URL for URL.
//
// Prints one JSON object: medians in microseconds, calls a second, medians of the rounds' ratios.
#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::uint64_t kCallLimit = 30'000'000;  // us; only a service that hangs takes this long

void check(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageCloser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageCloser>;

Bus connect() {
  sd_bus* bus = nullptr;
  check(sd_bus_open_system(&bus), "no bus");
  return Bus(bus);
}

/// The URLs of all clients. Each URL has its own number.
class Urls {
 public:
  explicit Urls(const std::string& url) : mUrl(url), mMark(url.find("%d")) {}

  std::string next() {
    if (mMark == std::string::npos) return mUrl;
    auto url = mUrl;
    return url.replace(mMark, 2, std::to_string(mNext++));
  }

 private:
  const std::string mUrl;
  const std::size_t mMark;
  std::atomic<unsigned> mNext{0};
};

/// The service that a block of calls asks.
struct Target {
  const char* name;
  const char* pacUrl;  ///< null if the service has the daemon's interface
};

Message questionTo(sd_bus* bus, const Target& target, const std::string& url) {
  sd_bus_message* made = nullptr;
  const bool isRunner = target.pacUrl != nullptr;
  check(sd_bus_message_new_method_call(
            bus, &made, target.name,
            isRunner ? "/org/gtk/GLib/PACRunner" : "/com/zentu/ProxyManagerService",
            isRunner ? "org.gtk.GLib.PACRunner" : "com.zentu.ProxyManagerServiceInterface",
            isRunner ? "Lookup" : "getProxyurl"),
        "call");
  Message call(made);
  if (isRunner) check(sd_bus_message_append_basic(made, 's', target.pacUrl), "call");
  check(sd_bus_message_append_basic(made, 's', url.c_str()), "call");
  return call;
}

/// Asks a question and reads the answer: the mode and the entries, or the proxies of the PAC
/// runner.
void ask(sd_bus* bus, const Target& target, const std::string& url) {
  const Message call = questionTo(bus, target, url);
  sd_bus_message* given = nullptr;
  check(sd_bus_call(bus, call.get(), kCallLimit, nullptr, &given), target.name);
  const Message reply(given);
  check(sd_bus_message_enter_container(given, 'a', "s"), "reply");
  int texts = 0;
  const char* text = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read_basic(given, 's', &text)) > 0) ++texts;
  check(result, "reply");
  if (texts < 2) throw std::runtime_error(std::string(target.name) + " has no answer");
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// One block of calls by all clients at once.
struct Block {
  double latency;  ///< median, us
  double rate;     ///< calls a second
};

class Clients {
 public:
  Clients(std::size_t count, std::size_t calls, Urls& urls) : mCalls(calls), mUrls(urls) {
    for (std::size_t i = 0; i < count; ++i) mBuses.push_back(connect());
  }

  Block run(const Target& target) {
    std::vector<std::vector<double>> taken(mBuses.size());
    std::vector<std::exception_ptr> failed(mBuses.size());
    Clock::time_point begin;
    std::barrier start(static_cast<std::ptrdiff_t>(mBuses.size()),
                       [&]() noexcept { begin = Clock::now(); });
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < mBuses.size(); ++i) {
      threads.emplace_back([&, i] {
        taken[i].reserve(mCalls);
        start.arrive_and_wait();
        try {
          for (std::size_t call = 0; call < mCalls; ++call) taken[i].push_back(one(i, target));
        } catch (...) {
          failed[i] = std::current_exception();
        }
      });
    }
    for (auto& thread : threads) thread.join();
    const Microseconds whole = Clock::now() - begin;
    std::vector<double> all;
    for (std::size_t i = 0; i < mBuses.size(); ++i) {
      if (failed[i]) std::rethrow_exception(failed[i]);
      all.insert(all.end(), taken[i].begin(), taken[i].end());
    }
    const auto calls = static_cast<double>(all.size());
    return {median(std::move(all)), calls / whole.count() * 1e6};
  }

 private:
  double one(std::size_t client, const Target& target) {
    const auto url = mUrls.next();
    const auto begin = Clock::now();
    ask(mBuses[client].get(), target, url);
    return Microseconds(Clock::now() - begin).count();
  }

  const std::size_t mCalls;
  Urls& mUrls;
  std::vector<Bus> mBuses;
};

nlohmann::ordered_json compare(Clients& clients, const Target& base, const Target& measured,
                               int rounds) {
  std::vector<double> baseLatency;
  std::vector<double> latency;
  std::vector<double> latencyRatio;
  std::vector<double> baseRate;
  std::vector<double> rate;
  std::vector<double> rateRatio;
  clients.run(base);  // first, both services warm up
  clients.run(measured);
  for (int round = 0; round < rounds; ++round) {
    const bool baseFirst = round % 2 == 0;
    Block ofBase{};
    Block ofMeasured{};
    if (baseFirst) ofBase = clients.run(base);
    ofMeasured = clients.run(measured);
    if (!baseFirst) ofBase = clients.run(base);
    baseLatency.push_back(ofBase.latency);
    latency.push_back(ofMeasured.latency);
    latencyRatio.push_back(ofMeasured.latency / ofBase.latency);
    baseRate.push_back(ofBase.rate);
    rate.push_back(ofMeasured.rate);
    rateRatio.push_back(ofMeasured.rate / ofBase.rate);
  }
  return {{"base_us", median(baseLatency)},
          {"measured_us", median(latency)},
          {"latency_ratio", median(latencyRatio)},
          {"base_per_s", median(baseRate)},
          {"measured_per_s", median(rate)},
          {"rate_ratio", median(rateRatio)},
          {"rounds", rounds}};
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 7 && argc != 8)
      throw std::invalid_argument("needs BASE MEASURED ROUNDS CALLS CLIENTS URL [PAC-URL]");
    const Target base{argv[1], argc == 8 ? argv[7] : nullptr};
    const Target measured{argv[2], nullptr};
    Urls urls(argv[6]);
    Clients clients(std::stoul(argv[5]), std::stoul(argv[4]), urls);
    std::cout << compare(clients, base, measured, std::stoi(argv[3])) << '\n';
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bus_load: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
