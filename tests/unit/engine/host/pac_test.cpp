// Tests the five functions of engine/pac.h with the real worker.
#include "engine/pac.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

struct Free {
  void operator()(pac* engine) const { pac_free(engine); }
};
using Handle = std::unique_ptr<pac, Free>;

constexpr char kEcho[] =
    "function FindProxyForURL(url, host) { if (host == 'none') return null; return 'P ' + host; }";

Handle make(const char* script, int option = PAC_OPTION_ONLINE) {
  return Handle(pac_init(script, option, nullptr, nullptr));
}

std::optional<std::string> ask(const Handle& engine, const char* url, const char* host) {
  char* result = nullptr;
  pac_find_proxy_sync_n(engine.get(), url, host, &result);
  if (result == nullptr) return std::nullopt;
  std::string text(result);
  std::free(result);
  return text;
}

struct Received {
  std::string result;
  std::optional<std::string> host;
};

/// Receives results in the way of a caller: it frees each result once.
struct Inbox {
  static void take(char* result, void* context, void* host) {
    auto& self = *static_cast<Inbox*>(context);
    Received one{result, std::nullopt};
    if (host != nullptr) one.host = static_cast<const char*>(host);
    self.hostAddresses.push_back(host);
    self.received.push_back(std::move(one));
    std::free(result);
  }
  std::vector<Received> received;
  std::vector<void*> hostAddresses;
};

void countWake(void* context) {
  ++*static_cast<int*>(context);
}

TEST(Pac, AnswersAtOnce) {
  const auto engine = make(kEcho);
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(ask(engine, "http://h/", "h"), "P h");
  EXPECT_EQ(ask(engine, "http://h/", nullptr), "P ");
}

TEST(Pac, SaysThatThereIsNoAnswerAndLeavesNull) {
  const auto engine = make(kEcho);
  char* result = reinterpret_cast<char*>(1);
  pac_find_proxy_sync_n(engine.get(), "http://h/", "none", &result);
  EXPECT_EQ(result, nullptr);
  EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: no answer: the result is no string"));
}

TEST(Pac, SaysWhyAScriptIsRefused) {
  clearLog();
  EXPECT_EQ(make("\nthrow 'x'; function FindProxyForURL() {}"), nullptr);
  ASSERT_EQ(logLines().size(), 1U);
  EXPECT_EQ(logLines()[0].priority, LOG_ERR);
  EXPECT_EQ(logLines()[0].text.rfind("pac_engine: script refused: ", 0), 0U) << logLines()[0];
  clearLog();
  EXPECT_EQ(make(""), nullptr);
  EXPECT_TRUE(logged(LOG_ERR,
                     "pac_engine: script refused: the script defines no function FindProxyForURL"));
  clearLog();
  EXPECT_EQ(make("\n\nfunction ("), nullptr);
  EXPECT_EQ(logLines()[0].text.rfind("pac_engine: script refused: line 3: SyntaxError", 0), 0U)
      << logLines()[0];
}

TEST(Pac, TakesNullEverywhere) {
  clearLog();
  EXPECT_EQ(pac_init(nullptr, PAC_OPTION_ONLINE, nullptr, nullptr), nullptr);
  Inbox inbox;
  pac_find_proxy(nullptr, "http://h/", "h", &Inbox::take, &inbox);
  char* result = reinterpret_cast<char*>(1);
  pac_find_proxy_sync_n(nullptr, "http://h/", "h", &result);
  EXPECT_EQ(result, nullptr);
  pac_run_callbacks(nullptr);
  pac_free(nullptr);
  const auto engine = make(kEcho);
  EXPECT_EQ(ask(engine, nullptr, "h"), std::nullopt);
  pac_find_proxy_sync_n(engine.get(), "http://h/", "h", nullptr);
  pac_find_proxy(engine.get(), nullptr, "h", &Inbox::take, &inbox);
  pac_find_proxy(engine.get(), "http://h/", "h", nullptr, &inbox);
  pac_run_callbacks(engine.get());
  EXPECT_TRUE(inbox.received.empty());
  EXPECT_TRUE(logLines().empty());
}

TEST(Pac, DeliversWhatIsQueuedOnlyFromRunCallbacks) {
  int woken = 0;
  const Handle engine(pac_init(kEcho, PAC_OPTION_ONLINE, &countWake, &woken));
  Inbox inbox;
  char host[] = "first";
  pac_find_proxy(engine.get(), "http://h/", host, &Inbox::take, &inbox);
  EXPECT_EQ(woken, 1);
  pac_find_proxy(engine.get(), "http://h/", "second", &Inbox::take, &inbox);
  EXPECT_EQ(woken, 2);
  host[0] = 'X';
  EXPECT_EQ(ask(engine, "http://h/", "now"), "P now");
  EXPECT_TRUE(inbox.received.empty());
  pac_run_callbacks(engine.get());
  ASSERT_EQ(inbox.received.size(), 2U);
  EXPECT_EQ(inbox.received[0].result, "P first");
  EXPECT_EQ(inbox.received[0].host, "first");
  EXPECT_NE(inbox.hostAddresses[0], host);
  EXPECT_EQ(inbox.received[1].result, "P second");
  EXPECT_EQ(woken, 2);
  pac_run_callbacks(engine.get());
  EXPECT_EQ(inbox.received.size(), 2U);
}

TEST(Pac, CallsNobodyBackWithoutAnAnswer) {
  const auto engine = make(kEcho);
  Inbox inbox;
  pac_find_proxy(engine.get(), "http://h/", "none", &Inbox::take, &inbox);
  pac_find_proxy(engine.get(), "http://h/", "some", &Inbox::take, &inbox);
  pac_run_callbacks(engine.get());
  ASSERT_EQ(inbox.received.size(), 1U);
  EXPECT_EQ(inbox.received[0].result, "P some");
}

TEST(Pac, GivesANullHostBackAsNull) {
  const auto engine = make(kEcho);
  Inbox inbox;
  pac_find_proxy(engine.get(), "http://h/", nullptr, &Inbox::take, &inbox);
  pac_run_callbacks(engine.get());
  ASSERT_EQ(inbox.received.size(), 1U);
  EXPECT_EQ(inbox.received[0].result, "P ");
  EXPECT_EQ(inbox.received[0].host, std::nullopt);
}

TEST(Pac, QueuesTwoHundredAndFiftySixQuestions) {
  clearLog();
  int woken = 0;
  const Handle engine(pac_init(kEcho, PAC_OPTION_ONLINE, &countWake, &woken));
  Inbox inbox;
  for (int i = 0; i < 256; ++i) {
    pac_find_proxy(engine.get(), "http://h/", "h", &Inbox::take, &inbox);
  }
  EXPECT_TRUE(logLines().empty());
  pac_find_proxy(engine.get(), "http://h/", "late", &Inbox::take, &inbox);
  EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: 256 questions are queued, one more is dropped"));
  EXPECT_EQ(woken, 256);
  pac_run_callbacks(engine.get());
  ASSERT_EQ(inbox.received.size(), 256U);
  EXPECT_EQ(inbox.received.back().host, "h");
}

struct Asker {
  static void take(char* result, void* context, void*) {
    auto& self = *static_cast<Asker*>(context);
    std::free(result);
    ++self.answers;
    pac_find_proxy(self.engine, "http://h/", "h", &Asker::take, context);
  }
  pac* engine = nullptr;
  int answers = 0;
};

TEST(Pac, LeavesWhatACallbackAsksForTheNextRound) {
  const auto engine = make(kEcho);
  Asker asker;
  asker.engine = engine.get();
  pac_find_proxy(engine.get(), "http://h/", "h", &Asker::take, &asker);
  pac_run_callbacks(engine.get());
  EXPECT_EQ(asker.answers, 1);
  pac_run_callbacks(engine.get());
  EXPECT_EQ(asker.answers, 2);
}

TEST(Pac, DropsWhatIsQueuedWhenItIsFreed) {
  auto engine = make(kEcho);
  Inbox inbox;
  pac_find_proxy(engine.get(), "http://h/", "h", &Inbox::take, &inbox);
  engine.reset();
  EXPECT_TRUE(inbox.received.empty());
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Pac, ResolvesNoNameButLocalhostWithTheOfflineOption) {
  const auto engine =
      make("function FindProxyForURL(url, host) { return myIpAddress() + ' ' + dnsResolve(host); }",
           PAC_OPTION_OFFLINE);
  EXPECT_EQ(ask(engine, "http://h/", "h"), "127.0.0.1 null");
  EXPECT_EQ(ask(engine, "http://localhost/", "localhost"), "127.0.0.1 127.0.0.1");
}

TEST(Pac, CopiesTheScript) {
  std::string script = kEcho;
  const auto engine = make(script.c_str());
  script.assign(script.size(), 'x');
  EXPECT_EQ(ask(engine, "http://h/", "h"), "P h");
}

}  // namespace
