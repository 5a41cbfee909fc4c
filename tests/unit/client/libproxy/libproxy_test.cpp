// Tests libproxy.so.1 in a program.
#include "tests/unit/client/libproxy/libproxy_test.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// --- The returned list ---

TEST_F(WithDaemon, GivesProxiesInTheOrderOfTheScript) {
  daemon.answer(kUrl, {{"pacurl", "PROXY b:8080", "DIRECT", "SOCKS a:1080", "PROXY a:3128"}});
  EXPECT_THAT(ask(), ElementsAre("http://b:8080", "direct://", "socks://a:1080", "http://a:3128"));
}

TEST_F(WithDaemon, NamesEveryKindAsLibproxyDoes) {
  daemon.answer(kUrl, {{"wpad", "PROXY p", "HTTP p:1", "HTTPS p", "SOCKS p", "socks p:1",
                        "SOCKS4 p", "SOCKS5 p", "PROXY [::1]:8080"}});
  EXPECT_THAT(
      ask(), ElementsAre("http://p:80", "http://p:1", "https://p:443", "socks://p:1080",
                         "socks://p:1", "socks4://p:1080", "socks5://p:1080", "http://[::1]:8080"));
}

TEST_F(WithDaemon, GivesTheManualProxyWithItsPassword) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"p:3128", "http://p:3128"},
      {"http://u:s%20x@p:3128", "http://u:s%20x@p:3128"},
      {"https://p:443", "https://p:443"},
      {"socks://p:1080", "socks://p:1080"},
      {"socks4a://p:1080", "socks4a://p:1080"},
      {"socks5h://u:x@p:1080", "socks5://u:x@p:1080"}};
  for (const auto& [configured, expected] : rows) {
    const std::string url = "http://" + std::to_string(&configured - &rows[0].first) + ".example/";
    daemon.answer(url, {{"manual", configured}});
    EXPECT_THAT(ask(url), ElementsAre(expected));
  }
}

TEST_F(WithDaemon, TheListAndItsTextsAreBlocksOfTheirOwn) {
  daemon.answer(kUrl, {{"pacurl", "PROXY a:1", "PROXY b:2"}});
  char** const proxies = px_proxy_factory_get_proxies(factory, kUrl.c_str());
  char* const kept = proxies[1];
  EXPECT_EQ(proxies[2], nullptr);
  // Callers free each text and the array separately, in any order. Here, one text is freed after
  // the array. If the text were a part of the array's block, a sanitizer would report an error.
  free(proxies[0]);
  free(proxies);
  px_proxy_factory_free(factory);
  factory = nullptr;
  EXPECT_STREQ(kept, "http://b:2");
  free(kept);
}

TEST_F(WithoutBus, NothingIsFreedForNull) {
  px_proxy_factory_free_proxies(nullptr);
  px_proxy_factory_free(nullptr);
  EXPECT_EQ(px_proxy_factory_copy(nullptr), nullptr);
}

TEST_F(WithoutBus, ACopyLivesAfterItsOriginal) {
  pxProxyFactory* const copy = px_proxy_factory_copy(factory);
  px_proxy_factory_free(factory);
  factory = copy;
  EXPECT_EQ(ask(), kDirect);
}

TEST_F(WithoutBus, ANullFactoryIsOneToo) {
  EXPECT_EQ(take(px_proxy_factory_get_proxies(nullptr, kUrl.c_str())), kDirect);
}

// --- Which answer is used ---

TEST_F(WithoutBus, IsDirectWithoutAnything) {
  EXPECT_EQ(ask(), kDirect);
}

TEST_F(WithDaemon, TheDaemonComesBeforeTheEnvironment) {
  setenv("http_proxy", "http://e:1", 1);
  daemon.answer(kUrl, {{"pacurl", "DIRECT"}});
  EXPECT_EQ(ask(), kDirect);
  EXPECT_THAT(ask("http://other.example/"), ElementsAre("http://p.example:1"));
}

TEST_F(WithDaemon, TheEnvironmentHoldsIfTheDaemonHasNoAnswer) {
  setenv("http_proxy", "http://e:1", 1);
  daemon.answer("http://off/", {{"off", ""}});
  daemon.answer("http://none/", {{"wpad"}});
  daemon.answer("http://useless/", {{"pacurl", "CARRIER pigeon"}});
  daemon.answer("http://fails/", {{}, "org.freedesktop.DBus.Error.Failed"});
  daemon.answer("http://wrong/", {{}, "", false, true});
  for (const char* url :
       {"http://off/", "http://none/", "http://useless/", "http://fails/", "http://wrong/"}) {
    EXPECT_THAT(ask(url), ElementsAre("http://e:1")) << url;
  }
  unsetenv("http_proxy");
  for (const char* url : {"http://off/", "http://none/", "http://useless/", "http://fails/"}) {
    EXPECT_EQ(ask(url), kDirect) << url;
  }
}

TEST_F(WithDaemon, TheEnvironmentHoldsIfThereIsNoDaemon) {
  setenv("http_proxy", "http://e:1", 1);
  daemon.giveName();
  EXPECT_THAT(ask(), ElementsAre("http://e:1"));
  daemon.takeName();
  EXPECT_THAT(ask(), ElementsAre("http://p.example:1"));
}

TEST_F(WithDaemon, WhatIsNoUrlIsDirectWithoutAQuestion) {
  setenv("http_proxy", "http://e:1", 1);
  for (const std::string& url :
       {std::string("www.example.org"), std::string(), std::string("://"), std::string("http:/x"),
        std::string("http://\xff/"), "http://a/" + std::string(65536, 'x')}) {
    EXPECT_EQ(ask(url), kDirect) << url.substr(0, 40);
  }
  EXPECT_EQ(take(px_proxy_factory_get_proxies(factory, nullptr)), kDirect);
  EXPECT_EQ(daemon.count(), 0);
}

TEST_F(WithDaemon, AnySchemeIsAsked) {
  for (const char* url :
       {"tcp://a.example:70", "udp://a.example:70", "none://a.example:70", "socks://a.example:70",
        "file:///etc/hosts", "http:///x", "ws://a.example/", "x-y+z.1://a.example/"}) {
    EXPECT_THAT(ask(url), ElementsAre("http://p.example:1")) << url;
  }
}

TEST_F(WithDaemon, ThisMachineIsReachedDirectly) {
  for (const char* url : {"http://localhost/", "http://127.0.0.1:1/", "http://[::1]/"}) {
    EXPECT_EQ(ask(url), kDirect) << url;
  }
}

TEST_F(WithDaemon, AnswersAreRememberedForAllFactories) {
  ask();
  for (int i = 0; i < 5; ++i) {
    pxProxyFactory* const other = px_proxy_factory_new();
    take(px_proxy_factory_get_proxies(other, kUrl.c_str()));
    px_proxy_factory_free(other);
  }
  EXPECT_EQ(daemon.count(), 1);
}

// --- Threads and processes ---

TEST_F(WithDaemon, ManyThreadsShareOneFactory) {
  constexpr int kThreads = 16, kQuestions = 200;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < kQuestions; ++i) {
        const auto url = "http://h" + std::to_string((thread + i) % 50) + ".example/";
        EXPECT_THAT(ask(url), ElementsAre("http://p.example:1"));
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(WithDaemon, AQuestionThatWaitsLocksNoOtherOut) {
  daemon.answer("http://slow/", {{"pacurl", "PROXY slow:1"}, "", true, false});
  Texts slow;
  std::thread waiting([&] { slow = ask("http://slow/"); });
  daemon.waitFor(1);
  EXPECT_THAT(ask(), ElementsAre("http://p.example:1"));
  EXPECT_THAT(ask(), ElementsAre("http://p.example:1"));
  daemon.release();
  waiting.join();
  EXPECT_THAT(slow, ElementsAre("http://slow:1"));
}

TEST_F(WithDaemon, AThreadThatIsCancelledHarmsNoOther) {
  daemon.answer("http://slow/", {{"pacurl", "PROXY slow:1"}, "", true, false});
  std::thread waiting([&] { EXPECT_THAT(ask("http://slow/"), ElementsAre("http://slow:1")); });
  daemon.waitFor(1);
  pthread_cancel(waiting.native_handle());  // the library disables cancellation during its call
  daemon.release();
  waiting.join();
  EXPECT_THAT(ask(), ElementsAre("http://p.example:1"));
}

TEST_F(WithDaemon, AChildProcessAsksByItself) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer lets no child process of a threaded one start threads";
#endif
  daemon.answer("http://slow/", {{"pacurl", "PROXY slow:1"}, "", true, false});
  std::thread waiting([&] { ask("http://slow/"); });
  daemon.waitFor(1);
  const pid_t child = fork();
  if (child == 0) {
    // The child does not use the test framework, because another thread may have held the
    // framework's locks at the fork.
    char** const proxies = px_proxy_factory_get_proxies(factory, "http://child.example/");
    const bool isRight = std::strcmp(proxies[0], "http://p.example:1") == 0;
    px_proxy_factory_free_proxies(proxies);
    _exit(isRight ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  daemon.release();
  waiting.join();
  EXPECT_THAT(ask(), ElementsAre("http://p.example:1"));
}

// --- Names ---

TEST_F(WithoutBus, FunctionsAreFoundWithAndWithoutTheirVersions) {
  void* const library = dlopen("libproxy.so.1", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr) << dlerror();
  for (const char* name : {"px_proxy_factory_new", "px_proxy_factory_get_proxies",
                           "px_proxy_factory_free_proxies", "px_proxy_factory_free"}) {
    EXPECT_NE(dlsym(library, name), nullptr) << name;
    EXPECT_EQ(dlvsym(library, name, "LIBPROXY_0.4.16"), dlsym(library, name)) << name;
  }
  for (const char* name : {"px_proxy_factory_get_type", "px_proxy_factory_copy"}) {
    EXPECT_NE(dlvsym(library, name, "LIBPROXY_0.5.5"), nullptr) << name;
  }
  // Qt looks for this name in all libraries of the process.
  EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZTVN8libproxy19pacrunner_extensionE"), nullptr);
  dlclose(library);
}

TEST_F(WithoutBus, PxDebugGivesTheReasons) {
  setenv("PX_DEBUG", "1", 1);
  setenv("http_proxy", "pac+http://pac.example/", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ask(), kDirect);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_THAT(lines,
              HasSubstr("libproxy of the proxy manager: the daemon gives no answer: there is "
                        "no message bus"));
  EXPECT_THAT(lines,
              HasSubstr("\"pac+http://pac.example/\" in the environment is not evaluated: the "
                        "daemon runs scripts\n"));
  const auto lineFor = [&](const char* url) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(take(px_proxy_factory_get_proxies(factory, url)), kDirect);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(lineFor("http://localhost/"),
            "libproxy of the proxy manager: this machine and this link are always direct\n");
  for (const char* text : {"www.example.org", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(lineFor(text), "libproxy of the proxy manager: a text without a scheme is direct\n");
  }
  unsetenv("PX_DEBUG");
  testing::internal::CaptureStderr();
  ask();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
