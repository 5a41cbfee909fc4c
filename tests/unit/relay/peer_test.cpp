#include "relay/peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

using namespace relay;

namespace {

struct Pair {
  base::UniqueFd client;
  base::UniqueFd server;
};

/// A connection over loopback.
Pair connected(const char* address) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  inet_pton(AF_INET, address, &name.sin_addr);
  const base::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  auto* const plain = reinterpret_cast<sockaddr*>(&name);
  socklen_t length = sizeof(name);
  EXPECT_EQ(bind(listener.get(), plain, length), 0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  EXPECT_EQ(getsockname(listener.get(), plain, &length), 0);
  Pair pair;
  pair.client.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(pair.client.get(), plain, length), 0);
  pair.server.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  return pair;
}

TEST(Peers, KnowTheOwnerOfALoopbackSocket) {
  const auto pair = connected("127.0.0.1");
  Peers peers({});
  const auto peer = peers.of(pair.server.get());
  EXPECT_TRUE(peer.isLocal);
  EXPECT_TRUE(peer.isAllowed);
  EXPECT_EQ(peer.user, geteuid());
  EXPECT_FALSE(peer.isGone);
}

TEST(Peers, DoNotKnowTheOwnerOfASocketThatWasClosed) {
  auto pair = connected("127.0.0.1");
  pair.client.reset();
  Peers peers({});
  EXPECT_FALSE(peers.of(pair.server.get()).isKnown());
  EXPECT_TRUE(peers.of(pair.server.get()).isGone);
}

TEST(Peers, KnowTheOwnerOfASocketThatSendsNoMore) {
  const auto pair = connected("127.0.0.1");
  shutdown(pair.client.get(), SHUT_WR);
  Peers peers({});
  EXPECT_EQ(peers.of(pair.server.get()).user, geteuid());
}

TEST(UserList, NamesTheUsersAndGroupsThatDoNotExist) {
  const std::vector<std::string> unknown{"no-such-user", "@no-such-group"};
  EXPECT_EQ(unknownUsers({"root", "no-such-user", "@root", "@no-such-group"}), unknown);
}

TEST(UserList, HasUsersByNameAndByGroup) {
  EXPECT_TRUE(UserList({"root"}).has(0));
  EXPECT_TRUE(UserList({"@root"}).has(0));
  EXPECT_FALSE(UserList({"root", "@root"}).has(65534));
  EXPECT_FALSE(UserList({"no-such-user", "@no-such-group"}).has(0));
  EXPECT_FALSE(UserList({"no-such-user"}).isEmpty());
}

TEST(Addresses, OfThisMachineAreKnown) {
  const auto at = [](const char* text) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    inet_pton(AF_INET, text, &name.sin_addr);
    return isOwnOrLinkLocal(reinterpret_cast<const sockaddr*>(&name));
  };
  for (const char* own : {"127.0.0.1", "127.255.255.255", "0.0.0.0", "169.254.1.1"}) {
    EXPECT_TRUE(at(own)) << own;
  }
  EXPECT_FALSE(at("192.0.2.1"));
}

TEST(Addresses, OfThisMachineAreKnownBehindATranslator) {
  const auto at = [](const char* text) {
    sockaddr_in6 name{};
    name.sin6_family = AF_INET6;
    inet_pton(AF_INET6, text, &name.sin6_addr);
    return isOwnOrLinkLocal(reinterpret_cast<const sockaddr*>(&name));
  };
  for (const char* own : {"::1", "64:ff9b::127.0.0.1", "64:ff9b::0.0.0.0", "64:ff9b::169.254.1.1",
                          "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(at(own)) << own;
  }
  EXPECT_FALSE(at("64:ff9b::192.0.2.1"));
  EXPECT_FALSE(at("64:ff9b:0:0:1::127.0.0.1"));
}

}  // namespace
