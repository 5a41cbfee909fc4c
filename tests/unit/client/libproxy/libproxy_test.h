// A program that uses libproxy, with a bus and a replacement of the daemon.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "client/libproxy/libproxy.h"
#include "tests/support/private_bus.h"
#include "tests/support/stand_in_daemon.h"

using Texts = std::vector<std::string>;

inline const std::string kUrl = "http://www.example.org/";
inline const Texts kDirect{"direct://"};

/// Removes the machine's own variables, so that they have no effect on a test.
inline void clearEnvironment() {
  for (const char* name :
       {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "ftp_proxy", "FTP_PROXY",
        "no_proxy", "NO_PROXY", "all_proxy", "ALL_PROXY", "REQUEST_METHOD", "PX_DEBUG"}) {
    unsetenv(name);
  }
}

class LibproxyTest : public testing::Test {
 protected:
  LibproxyTest() { clearEnvironment(); }
  ~LibproxyTest() override { px_proxy_factory_free(factory); }

  /// Asks, and frees the list in the way that libproxy documents.
  Texts ask(const std::string& url = kUrl) {
    return take(px_proxy_factory_get_proxies(factory, url.c_str()));
  }

  static Texts take(char** proxies) {
    Texts texts;
    EXPECT_NE(proxies, nullptr);
    for (char** proxy = proxies; proxy != nullptr && *proxy != nullptr; ++proxy) {
      texts.emplace_back(*proxy);
    }
    px_proxy_factory_free_proxies(proxies);
    return texts;
  }

  pxProxyFactory* factory = px_proxy_factory_new();
};

/// Without a bus, the environment variables determine the answer.
class WithoutBus : public LibproxyTest {
 protected:
  WithoutBus() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1); }
};

class WithDaemon : public LibproxyTest {
 protected:
  PrivateBus bus;
  StandInDaemon daemon;
};
