#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "fetcher/pac_fetcher.h"
#include "tests/support/http_server.h"
#include "tests/support/own_root.h"

// dripping_server
TEST(SlowDownload, EndsAfterThirtySecondsThoughBytesKeepComing) {
  enterOwnRoot();
  HttpServer server;
  server.route("/p.pac", [](Connection& peer) {
    peer.send("HTTP/1.1 200 OK\r\n\r\n");
    while (peer.send("/* FindProxyForURL */\n")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(PACFetcher::fileDownload(server.url("/p.pac"), "/tmp/p.tmp"));
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, std::chrono::seconds(29));
  EXPECT_LT(taken, std::chrono::seconds(60));
  EXPECT_FALSE(std::filesystem::exists("/tmp/p.tmp"));
}
