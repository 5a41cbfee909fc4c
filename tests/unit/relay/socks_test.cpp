#include "relay/socks.h"

#include <gtest/gtest.h>

#include <string>

using namespace relay;

namespace {

template <std::size_t size>
std::string bytes(const char (&text)[size]) {
  return std::string(text, size - 1);
}

const std::string kName5 = bytes("\x05\x01\x00\x03\x01") + "a" + bytes("\x01\xbb");
const std::string kName4 = bytes("\x04\x01\x01\xbb\x00\x00\x00\x01") + bytes("user\0a\0");

TEST(Socks5, ReadsNamesAndAddresses) {
  const auto name = readSocks5Request(kName5 + "rest");
  EXPECT_EQ(name.state, SocksState::kDone);
  EXPECT_EQ(name.taken, kName5.size());
  EXPECT_EQ(name.destination, (Destination{"a", 443}));
  const auto four = readSocks5Request(bytes("\x05\x01\x00\x01\xc0\x00\x02\x01\x00\x50"));
  EXPECT_EQ(four.destination, (Destination{"192.0.2.1", 80}));
  const auto six = readSocks5Request(bytes("\x05\x01\x00\x04") + std::string(15, '\0') + "\x01" +
                                     bytes("\x00\x50"));
  EXPECT_EQ(six.destination, (Destination{"::1", 80}));
}

TEST(Socks, WantMoreOfEachBeginning) {
  for (std::size_t size = 0; size < kName5.size(); size++) {
    EXPECT_EQ(readSocks5Request(std::string_view(kName5).substr(0, size)).state, SocksState::kMore);
  }
  for (std::size_t size = 0; size < kName4.size(); size++) {
    EXPECT_EQ(readSocks4Request(std::string_view(kName4).substr(0, size)).state, SocksState::kMore);
  }
}

TEST(Socks5, RefusesWhatItDoesNotHave) {
  EXPECT_EQ(readSocks5Greeting(bytes("\x05\x01\x02")).state, SocksState::kRefused);
  EXPECT_EQ(readSocks5Greeting(bytes("\x05\x02\x02\x00")).reply, bytes("\x05\x00"));
  EXPECT_EQ(readSocks5Request(bytes("\x05\x02\x00\x01\x00")).reply[1], 7);
  EXPECT_EQ(readSocks5Request(bytes("\x05\x01\x00\x02\x00")).reply[1], 8);
  EXPECT_EQ(readSocks5Request(bytes("\x05\x01\x01\x01\x00")).state, SocksState::kRefused);
  EXPECT_EQ(readSocks5Request(bytes("\x05\x01\x00\x03\x00\x00\x50")).state, SocksState::kRefused);
  EXPECT_EQ(readSocks5Request(bytes("\x05\x01\x00\x03\x01 \x00\x50")).state, SocksState::kRefused);
  EXPECT_EQ(readSocks5Request(bytes("\x05\x01\x00\x03\x01") + "a" + bytes("\x00\x00")).state,
            SocksState::kRefused);
}

TEST(Socks4, ReadsAddressesAndNames) {
  EXPECT_EQ(readSocks4Request(kName4).destination, (Destination{"a", 443}));
  EXPECT_EQ(readSocks4Request(kName4).taken, kName4.size());
  EXPECT_EQ(readSocks4Request(bytes("\x04\x01\x00\x50\xc0\x00\x02\x01\0")).destination,
            (Destination{"192.0.2.1", 80}));
  EXPECT_EQ(readSocks4Request(bytes("\x04\x02\x00\x50\xc0\x00\x02\x01\0")).state,
            SocksState::kRefused);
}

TEST(Socks4, HasAUserOfAtMost255Bytes) {
  const std::string begin = bytes("\x04\x01\x00\x50\xc0\x00\x02\x01");
  const std::string longest(kMaxSocksUser, 'u');
  EXPECT_EQ(readSocks4Request(begin + longest + bytes("\0")).state, SocksState::kDone);
  EXPECT_EQ(readSocks4Request(begin + longest + "u" + bytes("\0")).state, SocksState::kRefused);
  EXPECT_EQ(readSocks4Request(begin + longest + "u").state, SocksState::kRefused);
}

TEST(SocksReply, TellsTheResult) {
  EXPECT_EQ(socksReply(5, SocksResult::kConnected), bytes("\x05\x00\x00\x01\0\0\0\0\0\0"));
  EXPECT_EQ(socksReply(5, SocksResult::kNotAllowed)[1], 2);
  EXPECT_EQ(socksReply(4, SocksResult::kConnected)[1], 90);
  EXPECT_EQ(socksReply(4, SocksResult::kHostUnreachable)[1], 91);
}

}  // namespace
