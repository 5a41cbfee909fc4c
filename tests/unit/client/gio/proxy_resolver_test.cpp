// Tests the GLib module in a program: GLib finds and loads the module.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <proxymanager/client.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/private_bus.h"
#include "tests/support/stand_in_daemon.h"

namespace {

using ::testing::ElementsAre;

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using Cancellable = std::unique_ptr<GCancellable, Unref>;
using Context = std::unique_ptr<GMainContext, decltype(&g_main_context_unref)>;

Cancellable cancellable() {
  return Cancellable(g_cancellable_new());
}
Context context() {
  return {g_main_context_new(), g_main_context_unref};
}

/// The answer of GLib's next resolver in these tests.
std::string nextAnswer = "direct://";

char** nextLookup(GProxyResolver*, const char*, GCancellable*, GError**) {
  const char* const proxies[] = {nextAnswer.c_str(), nullptr};
  return g_strdupv(const_cast<char**>(proxies));
}

void implementNext(gpointer implemented, gpointer) {
  auto* const resolver = static_cast<GProxyResolverInterface*>(implemented);
  resolver->is_supported = [](GProxyResolver*) -> gboolean { return TRUE; };
  resolver->lookup = nextLookup;
}

/// Adds a resolver like that of a desktop, which GLib asks after the module's resolver. Call it
/// before the first lookup of the process.
void addNextResolver() {
  g_proxy_resolver_get_default();  // creates the extension point
  const GType type =
      g_type_register_static_simple(G_TYPE_OBJECT, "NextResolver", sizeof(GObjectClass), nullptr,
                                    sizeof(GObject), nullptr, static_cast<GTypeFlags>(0));
  const GInterfaceInfo interface { implementNext, nullptr, nullptr };
  g_type_add_interface_static(type, G_TYPE_PROXY_RESOLVER, &interface);
  g_io_extension_point_implement(G_PROXY_RESOLVER_EXTENSION_POINT_NAME, type, "desktop", 50);
}

/// The result of a lookup: proxies, or an error of G_IO_ERROR.
struct Outcome {
  std::vector<std::string> proxies;
  std::optional<int> error;
};

/// Makes an outcome, and takes ownership of both arguments.
Outcome outcome(char** proxies, GError* error) {
  Outcome made;
  for (char** proxy = proxies; proxy != nullptr && *proxy != nullptr; ++proxy) {
    made.proxies.emplace_back(*proxy);
  }
  g_strfreev(proxies);
  if (error != nullptr) {
    EXPECT_EQ(error->domain, G_IO_ERROR) << error->message;
    made.error = error->code;
    g_error_free(error);
  }
  EXPECT_NE(made.error.has_value(), !made.proxies.empty());
  return made;
}

Outcome lookup(const std::string& uri, GCancellable* cancellable = nullptr) {
  GError* error = nullptr;
  char** const proxies =
      g_proxy_resolver_lookup(g_proxy_resolver_get_default(), uri.c_str(), cancellable, &error);
  return outcome(proxies, error);
}

/// An asynchronous lookup, and the thread on which its callback ran.
class Lookup {
 public:
  explicit Lookup(const std::string& uri, GCancellable* cancellable = nullptr) {
    g_proxy_resolver_lookup_async(g_proxy_resolver_get_default(), uri.c_str(), cancellable,
                                  &Lookup::done, this);
    EXPECT_FALSE(mOutcome.has_value()) << "during the call";
  }

  /// Runs `context` until the callback has run.
  Outcome wait(GMainContext* context) {
    while (!mOutcome) g_main_context_iteration(context, TRUE);
    EXPECT_EQ(mThread, std::this_thread::get_id());
    return *mOutcome;
  }

  /// For a lookup on the default main context: whether its callback has not run yet.
  bool lasts() const {
    while (g_main_context_iteration(nullptr, FALSE)) continue;
    return !mOutcome;
  }

 private:
  static void done(GObject* resolver, GAsyncResult* result, gpointer self) {
    GError* error = nullptr;
    char** const proxies =
        g_proxy_resolver_lookup_finish(G_PROXY_RESOLVER(resolver), result, &error);
    auto& lookup = *static_cast<Lookup*>(self);
    EXPECT_FALSE(lookup.mOutcome.has_value()) << "a second time";
    lookup.mThread = std::this_thread::get_id();
    lookup.mOutcome = outcome(proxies, error);
  }

  std::thread::id mThread;
  std::optional<Outcome> mOutcome;
};

std::vector<std::string>& debugLines() {
  static std::vector<std::string> lines;
  return lines;
}

/// A program whose GLib has only this module. The program ends if GLib logs a warning.
class WithoutBus : public ::testing::Test {
 protected:
  WithoutBus() {
    setenv("GIO_MODULE_DIR", PROXYMANAGER_GIO_MODULES, 1);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
    unsetenv("GIO_USE_PROXY_RESOLVER");
    unsetenv("GIO_EXTRA_MODULES");
    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
  }
};

class WithoutDaemon : public WithoutBus {
 protected:
  PrivateBus mBus;
};

/// The reply to a URL of these tests. For "http://MODE/?ENTRY;ENTRY", the reply has this mode and
/// these entries. "_" stands for a blank. A question with the mode "hold" gets no reply.
Reply replyTo(const std::string& url) {
  const auto host = url.find("://") + 3;
  const auto slash = url.find('/', host);
  const std::string mode = url.substr(host, slash - host);
  Reply reply{{mode}, {}, mode == "hold", false};
  const auto mark = url.find('?');
  if (mark == std::string::npos) return reply;
  std::string entries = url.substr(mark + 1);
  std::replace(entries.begin(), entries.end(), '_', ' ');
  for (std::string::size_type begin = 0; begin <= entries.size();) {
    const auto end = std::min(entries.find(';', begin), entries.size());
    reply.texts.push_back(entries.substr(begin, end - begin));
    begin = end + 1;
  }
  return reply;
}

class ProxyResolver : public WithoutDaemon {
 protected:
  ProxyResolver() { mDaemon.answer(replyTo); }
  StandInDaemon mDaemon;
};

// --- Which resolver a program has ---

TEST_F(WithoutBus, IsThePrograms) {
  GProxyResolver* const resolver = g_proxy_resolver_get_default();
  EXPECT_STREQ(G_OBJECT_TYPE_NAME(resolver), "ProxymanagerResolver");
  EXPECT_TRUE(g_proxy_resolver_is_supported(resolver));
}

TEST_F(WithoutBus, IsNotTheProgramsWhereItNamesAnother) {
  setenv("GIO_USE_PROXY_RESOLVER", "dummy", 1);
  EXPECT_STRNE(G_OBJECT_TYPE_NAME(g_proxy_resolver_get_default()), "ProxymanagerResolver");
}

TEST_F(WithoutBus, ComesBeforeAllThatGLibHas) {
  g_proxy_resolver_get_default();
  GIOExtensionPoint* const point =
      g_io_extension_point_lookup(G_PROXY_RESOLVER_EXTENSION_POINT_NAME);
  auto* const first = static_cast<GIOExtension*>(g_io_extension_point_get_extensions(point)->data);
  EXPECT_STREQ(g_io_extension_get_name(first), "proxymanager");
  EXPECT_EQ(g_io_extension_get_priority(first), 100);
}

// --- Entries ---

TEST_F(ProxyResolver, GivesProxiesInTheirOrder) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_b:8080;DIRECT;SOCKS_a:1080;PROXY_a:3128").proxies,
              ElementsAre("http://b:8080", "direct://", "socks://a:1080", "http://a:3128"));
}

TEST_F(ProxyResolver, NamesEveryKindAsGLibDoes) {
  EXPECT_THAT(
      lookup("http://wpad/?PROXY_p;HTTP_p:1;HTTPS_p;SOCKS_p;socks_p:1;SOCKS4_p;SOCKS5_p;"
             "PROXY_[::1]:8080")
          .proxies,
      ElementsAre("http://p:80", "http://p:1", "https://p:443", "socks://p:1080", "socks://p:1",
                  "socks4://p:1080", "socks5://p:1080", "http://[::1]:8080"));
}

TEST_F(ProxyResolver, NamesVersion5ForProgramsBehindThePortal) {
  const std::string before = g_get_prgname() == nullptr ? "" : g_get_prgname();
  g_set_prgname("/usr/libexec/xdg-desktop-portal");
  EXPECT_THAT(lookup("http://wpad/?SOCKS_p;SOCKS4_p").proxies,
              ElementsAre("socks5://p:1080", "socks4://p:1080"));
  g_set_prgname(before.c_str());
}

TEST_F(ProxyResolver, GivesOneProxyInModeManualWithItsPassword) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"p:3128", "http://p:3128"},
      {"http://u:s%20x@p:3128", "http://u:s%20x@p:3128"},
      {"https://p:443", "https://p:443"},
      {"socks://p:1080", "socks://p:1080"},
      {"socks4://p:1080", "socks4://p:1080"},
      {"socks4a://p:1080", "socks4a://p:1080"},
      {"socks5://u:s@p:1080", "socks5://u:s@p:1080"},
      {"socks5h://p:1080", "socks5://p:1080"},
      {"", "direct://"},
  };
  for (const auto& [given, wanted] : rows) {
    EXPECT_THAT(lookup("http://manual/?" + given).proxies, ElementsAre(wanted)) << given;
  }
}

TEST_F(ProxyResolver, GoesDirectlyInModeOff) {
  EXPECT_THAT(lookup("http://off/?").proxies, ElementsAre("direct://"));
}

TEST_F(ProxyResolver, LeavesModeOffToTheNextResolver) {
  addNextResolver();
  nextAnswer = "http://desktop:1";
  EXPECT_THAT(lookup("http://off/?").proxies, ElementsAre("http://desktop:1"));
  EXPECT_THAT(lookup("http://manual/?p:1").proxies, ElementsAre("http://p:1"));
}

TEST_F(WithoutDaemon, AsksTheNextResolverUnlessItMustRefuse) {
  addNextResolver();
  nextAnswer = "http://desktop:1";
  EXPECT_THAT(lookup("http://a.example/").proxies, ElementsAre("http://desktop:1"));
  setenv("PROXYMANAGER_NO_ANSWER", "refuse", 1);
  EXPECT_EQ(lookup("http://a.example/").error, G_IO_ERROR_PROXY_FAILED);
}

TEST_F(ProxyResolver, RefusesWithoutAnEntryThatIsOfUseIfItMust) {
  setenv("PROXYMANAGER_NO_ANSWER", "refuse", 1);
  EXPECT_EQ(lookup("http://pacurl/?PROXY_-x:1").error, G_IO_ERROR_PROXY_FAILED);
  EXPECT_THAT(lookup("http://off/?").proxies, ElementsAre("direct://"));
}

TEST_F(ProxyResolver, LeavesOutWhatIsNoAddress) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_-x:1;QUIC_q:1;PROXY_p:1;PROXY_p:0").proxies,
              ElementsAre("http://p:1"));
}

TEST_F(ProxyResolver, GoesDirectlyWhereNoEntryIsOfUse) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_-x:1").proxies, ElementsAre("direct://"));
  EXPECT_THAT(lookup("http://pacurl/").proxies, ElementsAre("direct://"));
}

TEST_F(ProxyResolver, GivesNoHttpProxyWhereTheProtocolIsNotKnown) {
  EXPECT_THAT(lookup("none://pacurl/?PROXY_p:1;HTTPS_p;SOCKS_p;DIRECT").proxies,
              ElementsAre("socks://p:1080", "direct://"));
  EXPECT_THAT(lookup("NONE://pacurl/?PROXY_p:1;SOCKS5_p").proxies, ElementsAre("socks5://p:1080"));
  EXPECT_THAT(lookup("none://pacurl/?PROXY_p:1").proxies, ElementsAre("direct://"));
}

TEST_F(WithoutBus, KnowsHowToSpeakToEveryProxyThatIsGiven) {
  g_proxy_resolver_get_default();
  for (const auto* const protocol : {"http", "https", "socks", "socks4", "socks4a", "socks5"}) {
    const std::unique_ptr<GProxy, Unref> proxy(g_proxy_get_default_for_protocol(protocol));
    EXPECT_NE(proxy, nullptr) << protocol;
  }
  const std::unique_ptr<GProxy, Unref> socks(g_proxy_get_default_for_protocol("socks"));
  EXPECT_STREQ(G_OBJECT_TYPE_NAME(socks.get()), "ProxymanagerSocks");
  EXPECT_TRUE(g_proxy_supports_hostname(socks.get()));
}

// --- What goes wrong ---

TEST_F(WithoutBus, GoesDirectly) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_p:1").proxies, ElementsAre("direct://"));
}

TEST_F(WithoutDaemon, GoesDirectly) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_p:1").proxies, ElementsAre("direct://"));
}

TEST_F(WithoutDaemon, SaysWhyItGoesDirectlyToWhoeverDebugs) {
  g_log_set_writer_func(
      [](GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
        std::string domain;
        std::string text;
        for (gsize i = 0; i < count; ++i) {
          const std::string key = fields[i].key;
          if (key == "GLIB_DOMAIN") domain = static_cast<const char*>(fields[i].value);
          if (key == "MESSAGE") text = static_cast<const char*>(fields[i].value);
        }
        if (domain == "proxymanager") {
          EXPECT_EQ(level, G_LOG_LEVEL_DEBUG);
          debugLines().push_back(text);
        }
        return G_LOG_WRITER_HANDLED;
      },
      nullptr, nullptr);
  lookup("http://a/");
  const auto why = proxymanager_status_text(PROXYMANAGER_NO_DAEMON);
  EXPECT_THAT(debugLines(), ElementsAre(std::string("directly: ") + why));
}

TEST_F(ProxyResolver, RefusesWhatIsNoUri) {
  const std::string tooLong = "http://off/" + std::string(PROXYMANAGER_MAX_URL - 10, 'a');
  for (const auto& uri : {std::string("no uri"), tooLong}) {
    EXPECT_EQ(lookup(uri).error, G_IO_ERROR_INVALID_ARGUMENT);
  }
  EXPECT_THAT(lookup(tooLong.substr(0, PROXYMANAGER_MAX_URL)).proxies, ElementsAre("direct://"));
}

// --- Waiting ---

TEST_F(ProxyResolver, RunsNothingOfTheMainContextWhileSomebodyWaits) {
  const auto own = context();
  g_main_context_push_thread_default(own.get());
  bool ran = false;
  GSource* const source = g_idle_source_new();
  g_source_set_callback(
      source,
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &ran, nullptr);
  g_source_attach(source, own.get());
  g_source_unref(source);
  EXPECT_THAT(lookup("http://pacurl/?PROXY_p:1").proxies, ElementsAre("http://p:1"));
  EXPECT_FALSE(ran);
  while (!ran) g_main_context_iteration(own.get(), TRUE);
  g_main_context_pop_thread_default(own.get());
}

TEST_F(ProxyResolver, AsksNothingWhereItIsCancelledBefore) {
  const auto cancelled = cancellable();
  g_cancellable_cancel(cancelled.get());
  EXPECT_EQ(lookup("http://hold/", cancelled.get()).error, G_IO_ERROR_CANCELLED);
  lookup("http://off/?");
  EXPECT_EQ(mDaemon.count(), 1);
}

TEST_F(ProxyResolver, ServesThreadsThatWaitAtOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 1; i <= 50; ++i) {
        const auto port = std::to_string(thread % 4 * 50 + i);
        EXPECT_THAT(lookup("http://pacurl/?PROXY_p:" + port).proxies,
                    ElementsAre("http://p:" + port));
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

// --- Not waiting, and cancelling ---
//
// The following tests do not work with the thread sanitizer. GLib is not built for it and uses its
// own kind of locks when it passes memory between threads, so the sanitizer would report races. In
// addition, the sanitizer does not allow threads in a forked process.
#ifndef __SANITIZE_THREAD__

TEST_F(ProxyResolver, AnswersOnTheMainContextOfWhoeverAsks) {
  EXPECT_THAT(Lookup("http://pacurl/?PROXY_p:1").wait(nullptr).proxies, ElementsAre("http://p:1"));
  std::thread([] {
    const auto own = context();
    g_main_context_push_thread_default(own.get());
    {
      Lookup first("http://pacurl/?PROXY_p:2;PROXY_p:3");
      EXPECT_THAT(first.wait(own.get()).proxies, ElementsAre("http://p:2", "http://p:3"));
      Lookup remembered("http://pacurl/?PROXY_p:2;PROXY_p:3");
      EXPECT_THAT(remembered.wait(own.get()).proxies, ElementsAre("http://p:2", "http://p:3"));
    }
    g_main_context_pop_thread_default(own.get());
  }).join();
}

TEST_F(ProxyResolver, LeavesModeOffToTheNextResolverForACallerThatDoesNotWait) {
  addNextResolver();
  nextAnswer = "http://desktop:1";
  const auto main = context();
  g_main_context_push_thread_default(main.get());
  EXPECT_THAT(Lookup("http://off/?x").wait(main.get()).proxies, ElementsAre("http://desktop:1"));
  g_main_context_pop_thread_default(main.get());
}

TEST_F(WithoutBus, GoesDirectlyForWhoeverDoesNotWaitToo) {
  EXPECT_THAT(Lookup("http://pacurl/?PROXY_p:1").wait(nullptr).proxies, ElementsAre("direct://"));
}

TEST_F(ProxyResolver, RefusesAndLeavesOutTheSameForWhoeverDoesNotWait) {
  const std::string tooLong = "http://off/" + std::string(PROXYMANAGER_MAX_URL, 'a');
  EXPECT_EQ(Lookup(tooLong).wait(nullptr).error, G_IO_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(Lookup("no uri").wait(nullptr).error, G_IO_ERROR_INVALID_ARGUMENT);
  EXPECT_THAT(Lookup("none://pacurl/?PROXY_p:1;SOCKS_p").wait(nullptr).proxies,
              ElementsAre("socks://p:1080"));
}

TEST_F(ProxyResolver, AsksNothingForALookupThatIsCancelledBefore) {
  const auto cancelled = cancellable();
  g_cancellable_cancel(cancelled.get());
  EXPECT_EQ(Lookup("http://hold/", cancelled.get()).wait(nullptr).error, G_IO_ERROR_CANCELLED);
  lookup("http://off/?");
  EXPECT_EQ(mDaemon.count(), 1);
}

// A lookup that began earlier is still in progress when the cancelled lookup ends. So it was the
// cancellation that ended the lookup, and not the time limit.
TEST_F(ProxyResolver, EndsAWaitThatIsCancelled) {
  const auto lasting = cancellable();
  Lookup before("http://hold/before", lasting.get());
  mDaemon.waitFor(1);
  const auto cancelled = cancellable();
  std::thread other([&] {
    mDaemon.waitFor(2);
    g_cancellable_cancel(cancelled.get());
  });
  EXPECT_EQ(lookup("http://hold/", cancelled.get()).error, G_IO_ERROR_CANCELLED);
  EXPECT_TRUE(before.lasts());
  other.join();
  g_cancellable_cancel(lasting.get());
  EXPECT_EQ(before.wait(nullptr).error, G_IO_ERROR_CANCELLED);
}

TEST_F(ProxyResolver, EndsALookupThatIsCancelledAndNoOther) {
  const auto lasting = cancellable();
  Lookup before("http://hold/before", lasting.get());
  mDaemon.waitFor(1);
  const auto cancelled = cancellable();
  Lookup held("http://hold/", cancelled.get());
  mDaemon.waitFor(2);
  Lookup other("http://pacurl/?PROXY_p:1", lasting.get());
  g_cancellable_cancel(cancelled.get());
  EXPECT_EQ(held.wait(nullptr).error, G_IO_ERROR_CANCELLED);
  EXPECT_THAT(other.wait(nullptr).proxies, ElementsAre("http://p:1"));
  EXPECT_TRUE(before.lasts());
  g_cancellable_cancel(lasting.get());  // has no effect on lookups that have ended
  EXPECT_EQ(before.wait(nullptr).error, G_IO_ERROR_CANCELLED);
}

TEST_F(ProxyResolver, LeavesNoHandlerOnACancellable) {
  const auto lasting = cancellable();
  const guint signal = g_signal_lookup("cancelled", G_TYPE_CANCELLABLE);
  lookup("http://pacurl/?PROXY_p:1", lasting.get());
  EXPECT_FALSE(g_signal_has_handler_pending(lasting.get(), signal, 0, TRUE));
  Lookup("http://pacurl/?PROXY_p:2", lasting.get()).wait(nullptr);
  // The library's thread may be the last that releases the task.
  while (g_signal_has_handler_pending(lasting.get(), signal, 0, TRUE)) std::this_thread::yield();
}

/// The lookups of one thread. Each runs together with another lookup that is cancelled at some
/// moment.
void lookUpAgainAndAgain(int thread) {
  const auto own = context();
  g_main_context_push_thread_default(own.get());
  for (int i = 0; i < 40; ++i) {
    const auto port = std::to_string(1 + thread * 40 + i);
    const std::string uri = "http://pacurl/?PROXY_p:" + port;
    const auto cancelled = cancellable();
    Lookup perhaps(uri, cancelled.get());
    Lookup kept(uri);
    if (i % 2 == 0) {
      EXPECT_THAT(lookup(uri).proxies, ElementsAre("http://p:" + port));
    }
    g_cancellable_cancel(cancelled.get());
    EXPECT_EQ(perhaps.wait(own.get()).error, G_IO_ERROR_CANCELLED);
    EXPECT_THAT(kept.wait(own.get()).proxies, ElementsAre("http://p:" + port));
  }
  g_main_context_pop_thread_default(own.get());
}

TEST_F(ProxyResolver, ServesThreadsThatAskAndCancelAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back(lookUpAgainAndAgain, i);
  for (auto& thread : threads) thread.join();
}

TEST_F(ProxyResolver, ServesAForkedProcessToo) {
  EXPECT_THAT(lookup("http://pacurl/?PROXY_p:1").proxies, ElementsAre("http://p:1"));
  const pid_t child = fork();
  if (child == 0) {
    const bool first = lookup("http://pacurl/?PROXY_p:1").proxies.front() == "http://p:1";
    const bool second = lookup("http://pacurl/?PROXY_p:2").proxies.front() == "http://p:2";
    _exit(first && second ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_THAT(lookup("http://pacurl/?PROXY_p:3").proxies, ElementsAre("http://p:3"));
}

#endif

}  // namespace
