#include "engine/host/name_lookup.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"
#include "tests/support/own_root.h"
#include "tests/support/shortest.h"
#include "tests/unit/engine/dns_server.h"
#include "tests/unit/engine/own_network.h"

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

// A lookup has two seconds, and asks again after half a second. On a busy machine, this can disturb
// a test that waits for an answer or counts the questions. So such a test is tried up to five
// times.

constexpr auto kIpv4 = AddressFamily::kIpv4;
constexpr auto kAny = AddressFamily::kAny;

/// A socket whose peer stays open until the end of the test, or until the test closes the peer.
class Watched {
 public:
  Watched() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, mEnds), 0); }
  ~Watched() {
    close(mEnds[0]);
    hangUp();
  }
  int fd() const { return mEnds[0]; }
  void hangUp() {
    if (mEnds[1] >= 0) close(mEnds[1]);
    mEnds[1] = -1;
  }

 private:
  int mEnds[2] = {-1, -1};
};

struct Asked {
  Texts addresses;
  milliseconds took;
};

class Names {
 public:
  explicit Names(NameSource source) : lookup(std::move(source)) { lookup.begin(); }

  Asked ask(std::string_view name, AddressFamily family = kIpv4, milliseconds left = seconds(5)) {
    const auto start = steady_clock::now();
    auto addresses = lookup.resolve(name, family, start + left, watched.fd());
    return {std::move(addresses),
            std::chrono::duration_cast<milliseconds>(steady_clock::now() - start)};
  }

  NameLookup lookup;
  Watched watched;
};

NameSource servedBy(const DnsServer& server) {
  NameSource source;
  source.nameServers = server.address();
  return source;
}

/// The host name with this number, for example "n7.test".
std::string nameOf(int number) {
  std::string name = "n";
  name += std::to_string(number);
  return name += ".test";
}

DnsName at(Texts addresses) {
  DnsName name;
  name.addresses = std::move(addresses);
  return name;
}

TEST(NameLookup, GivesAddressesOfTheFamilyAskedFor) {
  onceOfFive([] {
    const DnsServer server(
        {{"both.test", at({"10.0.0.1", "2001:db8::1"})}, {"six.test", at({"2001:db8::6"})}});
    Names names(servedBy(server));
    EXPECT_EQ(names.ask("both.test").addresses, Texts{"10.0.0.1"});
    auto both = names.ask("both.test", kAny).addresses;
    std::sort(both.begin(), both.end());
    EXPECT_EQ(both, (Texts{"10.0.0.1", "2001:db8::1"}));
    EXPECT_EQ(names.ask("six.test").addresses, Texts());
    EXPECT_EQ(names.ask("six.test", kAny).addresses, Texts{"2001:db8::6"});
  });
}

TEST(NameLookup, GivesNothingForANameThatDoesNotExist) {
  const DnsServer server({});
  Names names(servedBy(server));
  EXPECT_EQ(names.ask("none.test").addresses, Texts());
  EXPECT_GE(server.questions("none.test"), 1);
}

TEST(NameLookup, AsksAgainForANameOfALaterEvaluationOnlyWhenItsLifetimeIsOver) {
  onceOfFive([] {
    auto brief = at({"10.0.0.2"});
    brief.lifetime = 0;
    const DnsServer server({{"kept.test", at({"10.0.0.1"})}, {"brief.test", brief}});
    Names names(servedBy(server));
    for (int evaluation = 0; evaluation < 3; ++evaluation) {
      names.lookup.begin();
      EXPECT_EQ(names.ask("KEPT.test").addresses, Texts{"10.0.0.1"});
      EXPECT_EQ(names.ask("brief.test").addresses, Texts{"10.0.0.2"});
      EXPECT_EQ(names.ask("brief.test").addresses, Texts{"10.0.0.2"});
    }
    EXPECT_EQ(server.questions("kept.test"), 1);
    EXPECT_EQ(server.questions("brief.test"), 3);
  });
}

TEST(NameLookup, KeepsAFailureForLaterEvaluations) {
  onceOfFive([] {
    const DnsServer server({});
    Names names(servedBy(server));
    names.ask("none.test");
    const int asked = server.questions("none.test");
    names.lookup.begin();
    names.ask("none.test");
    EXPECT_EQ(server.questions("none.test"), asked);
  });
}

TEST(NameLookup, LooksUpTwentyNamesInOneEvaluation) {
  onceOfFive([] {
    std::map<std::string, DnsName> all;
    for (int i = 0; i < 21; ++i) all[nameOf(i)] = at({"10.0.0.1"});
    const DnsServer server(all);
    Texts refused;
    auto source = servedBy(server);
    source.onRefused = [&](std::string_view name) { refused.emplace_back(name); };
    Names names(source);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(names.ask(nameOf(i)).addresses, Texts{"10.0.0.1"}) << i;
    }
    EXPECT_EQ(refused, Texts());
    EXPECT_EQ(names.ask("n20.test").addresses, Texts());
    EXPECT_EQ(refused, Texts{"n20.test"});
    EXPECT_EQ(server.questions("n20.test"), 0);
    EXPECT_EQ(names.ask("n0.test").addresses, Texts{"10.0.0.1"});
    names.lookup.begin();
    EXPECT_EQ(names.ask("n20.test").addresses, Texts{"10.0.0.1"});
  });
}

TEST(NameLookup, HearsASlowServerWithinTwoSeconds) {
  onceOfFive([] {
    auto slow = at({"10.0.0.1"});
    slow.delay = milliseconds(1500);
    const DnsServer server({{"slow.test", slow}});
    Names names(servedBy(server));
    const auto asked = names.ask("slow.test");
    EXPECT_EQ(asked.addresses, Texts{"10.0.0.1"});
    EXPECT_GE(asked.took, milliseconds(1400));
  });
}

TEST(NameLookup, GivesUpASlowServerAfterTwoSeconds) {
  auto slow = at({"10.0.0.1"});
  slow.delay = milliseconds(2600);
  const DnsServer server({{"slow.test", slow}});
  Names names(servedBy(server));
  const auto asked = names.ask("slow.test");
  EXPECT_EQ(asked.addresses, Texts());
  EXPECT_GE(asked.took, milliseconds(1990));
  EXPECT_LT(asked.took, seconds(20));
}

// If this were not a timeout, the next evaluation would use half an answer as if it were a whole
// answer.
TEST(NameLookup, AFamilyThatIsNeverAnsweredIsATimeoutOfTheWholeLookup) {
  auto half = at({"10.0.0.1", "2001:db8::1"});
  half.silentForIpv4 = true;
  const DnsServer server({{"half.test", half}});
  Names names(servedBy(server));
  const auto asked = names.ask("half.test", kAny);
  EXPECT_EQ(asked.addresses, Texts());
  EXPECT_GE(asked.took, milliseconds(1990));
}

TEST(NameLookup, GivesUpADeadServerAfterTwoSecondsAndRemembersIt) {
  onceOfFive([] {
    DnsName dead;
    dead.silent = true;
    const DnsServer server({{"dead.test", dead}, {"behind.test", at({"10.0.0.1"})}});
    Names names(servedBy(server));
    EXPECT_GE(names.ask("dead.test").took, milliseconds(1990));
    // This question is answered after all earlier questions have been counted.
    EXPECT_EQ(names.ask("behind.test").addresses, Texts{"10.0.0.1"});
    const auto questions = server.questions("dead.test");
    EXPECT_GT(questions, 0);
    names.lookup.begin();
    EXPECT_EQ(names.ask("dead.test").addresses, Texts());
    EXPECT_EQ(server.questions("dead.test"), questions);
  });
}

TEST(NameLookup, PassesOverADeadServer) {
  onceOfFive([] {
    DnsName dead;
    dead.silent = true;
    const DnsServer first({{"a.test", dead}});
    const DnsServer second({{"a.test", at({"10.0.0.1"})}});
    NameSource source;
    source.nameServers = first.address() + "," + second.address();
    Names names(source);
    const auto asked = names.ask("a.test");
    EXPECT_EQ(asked.addresses, Texts{"10.0.0.1"});
  });
}

TEST(NameLookup, KeepsToTheEndOfTheEvaluationAndRemembersNothingThen) {
  onceOfFive([] {
    auto slow = at({"10.0.0.1"});
    slow.delay = milliseconds(600);
    const DnsServer server({{"slow.test", slow}});
    Names names(servedBy(server));
    const auto asked = names.ask("slow.test", kIpv4, milliseconds(200));
    EXPECT_EQ(asked.addresses, Texts());
    EXPECT_LT(asked.took, seconds(20));
    names.lookup.begin();
    EXPECT_EQ(names.ask("slow.test").addresses, Texts{"10.0.0.1"});
  });
}

TEST(NameLookup, EndsWhenNobodyWaitsForItAnyMore) {
  DnsName dead;
  dead.silent = true;
  const auto took = shortest(milliseconds(1900), [&] {
    const DnsServer server({{"dead.test", dead}});
    Names names(servedBy(server));
    std::thread other([&] {
      while (server.questions("dead.test") == 0) std::this_thread::yield();
      names.watched.hangUp();
    });
    names.ask("dead.test");
    other.join();
  });
  EXPECT_LT(took, milliseconds(1900));
}

TEST(NameLookup, AsksForInternationalNamesInTheirAsciiForm) {
  onceOfFive([] {
    const DnsServer server({{"xn--mnchen-3ya.test", at({"10.0.0.1"})}});
    Names names(servedBy(server));
    EXPECT_EQ(names.ask("m\xc3\xbcnchen.test").addresses, Texts{"10.0.0.1"});
    EXPECT_EQ(names.ask("M\xc3\x9cNCHEN.test").addresses, Texts{"10.0.0.1"});
    EXPECT_EQ(server.questions("xn--mnchen-3ya.test"), 1);
  });
}

TEST(NameLookup, AsksNobodyForWhatIsNoName) {
  const DnsServer server({});
  Names names(servedBy(server));
  for (const std::string_view name :
       {std::string_view(""), std::string_view("a b.test"), std::string_view("a\0b.test", 8),
        std::string_view("a\n.test"), std::string_view("\xff\xfe.test")}) {
    EXPECT_EQ(names.ask(name).addresses, Texts()) << name;
  }
  EXPECT_EQ(asciiName(std::string(254, 'a')), std::string(254, 'a'));
  EXPECT_EQ(asciiName(std::string(255, 'a')), std::nullopt);
}

TEST(NameLookup, SaysWhyThereAreNoLookups) {
  NameSource source;
  source.nameServers = "no address";
  Names names(source);
  EXPECT_EQ(names.ask("a.test").addresses, Texts());
  EXPECT_TRUE(logged(LOG_ERR, "pac_engine: no name lookups: Misformatted string"));
}

TEST(NameLookup, KnowsLocalhostAndItsSubdomainsWithoutAServer) {
  const DnsServer server({{"foo.localhost", at({"10.0.0.1"})}});
  Names names(servedBy(server));
  for (const char* name :
       {"localhost", "localhost.", "foo.localhost", "A.B.LOCALHOST.", "\uff4cocalhost"}) {
    EXPECT_EQ(names.ask(name).addresses, Texts{"127.0.0.1"}) << name;
    EXPECT_EQ(names.ask(name, kAny).addresses, (Texts{"::1", "127.0.0.1"})) << name;
  }
  for (const char* other : {".localhost", "localhost..", "foo..localhost", "notlocalhost"}) {
    EXPECT_EQ(names.ask(other).addresses, Texts()) << other;
  }
  EXPECT_EQ(server.questions("localhost"), 0);
  EXPECT_EQ(server.questions("foo.localhost"), 0);
}

TEST(NameLookup, CountsLocalhostToNoShare) {
  auto source = NameSource();
  source.staticNames = StaticNames{{"a.test", {"10.0.0.1"}}};
  Names names(source);
  for (int i = 0; i < 21; ++i) names.ask(nameOf(i) + ".localhost");
  EXPECT_EQ(names.ask("a.test").addresses, Texts{"10.0.0.1"});
}

TEST(NameLookup, ReadsANameThatIsMappedToAnIpv4Literal) {
  const DnsServer server({});
  NameSource given;
  given.staticNames = StaticNames{};
  NameSource offline;
  offline.offline = true;
  for (const auto& source : {servedBy(server), given, offline}) {
    Names names(source);
    for (const char* name :
         {"\uff11.2.3.4", "\uff11.2.3.4.", "1.2.3.\u2463", "\U0001d7d9.2.3.4", "1.2.3.\u00ad4",
          "1\u30022\u30023\u30024", "1.2.3.4\u3002", "\uff10\uff58\uff11.2.772"}) {
      EXPECT_EQ(names.ask(name).addresses, Texts{"1.2.3.4"}) << name;
      EXPECT_EQ(names.ask(name, kAny).addresses, Texts{"1.2.3.4"}) << name;
    }
    EXPECT_EQ(names.ask("\uff13\uff10\uff10.2.3.4").addresses, Texts());
  }
  EXPECT_EQ(server.questions("300.2.3.4"), 0);
}

TEST(NameLookup, KnowsNoNameButLocalhostOffline) {
  const DnsServer server({{"a.test", at({"10.0.0.1"})}});
  auto source = servedBy(server);
  source.offline = true;
  Names names(source);
  EXPECT_EQ(names.ask("a.test").addresses, Texts());
  EXPECT_EQ(names.ask("localhost").addresses, Texts{"127.0.0.1"});
  EXPECT_EQ(names.ask("a.localhost").addresses, Texts{"127.0.0.1"});
  EXPECT_EQ(server.questions("a.test"), 0);
}

TEST(NameLookup, LooksNothingElseUpWhenNamesAreGiven) {
  const DnsServer server({{"a.test", at({"10.0.0.1"})}});
  auto source = servedBy(server);
  source.staticNames = StaticNames{{"B.Test", {"2001:db8::2", "10.0.0.2"}}};
  Names names(source);
  EXPECT_EQ(names.ask("b.test").addresses, Texts{"10.0.0.2"});
  EXPECT_EQ(names.ask("b.test", kAny).addresses, (Texts{"2001:db8::2", "10.0.0.2"}));
  EXPECT_EQ(names.ask("a.test").addresses, Texts());
  EXPECT_EQ(server.questions("a.test"), 0);
}

TEST(NameLookup, TakesAGivenNameWithAndWithoutTheDotOfTheRoot) {
  NameSource source;
  source.staticNames = StaticNames{{"a.test", {"10.0.0.1"}}, {"b.test.", {"10.0.0.2"}}};
  Names names(source);
  EXPECT_EQ(names.ask("a.test.").addresses, Texts{"10.0.0.1"});
  EXPECT_EQ(names.ask("b.test").addresses, Texts{"10.0.0.2"});
  EXPECT_EQ(names.ask("b.test.").addresses, Texts{"10.0.0.2"});
  EXPECT_EQ(names.ask("a.test..").addresses, Texts());
}

TEST(NameLookup, KnowsLocalhostBesideGivenNamesUnlessItIsGiven) {
  NameSource source;
  source.staticNames = StaticNames{{"localhost", {"10.0.0.1"}}};
  Names names(source);
  EXPECT_EQ(names.ask("localhost.").addresses, Texts{"10.0.0.1"});
  EXPECT_EQ(names.ask("a.localhost").addresses, Texts{"127.0.0.1"});
}

void write(const std::string& path, const std::string& text) {
  std::ofstream(path + ".new") << text;
  std::filesystem::rename(path + ".new", path);
}

TEST(NameLookup, HonoursTheHostsFileAndSeesItChange) {
  enterOwnRoot();
  enterOwnNetwork();
  write("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  write("/etc/hosts", "10.9.9.9 listed.test\n");
  Names names{NameSource{}};
  EXPECT_EQ(names.ask("listed.test").addresses, Texts{"10.9.9.9"});
  write("/etc/hosts", "10.9.9.8 listed.test\n");
  names.lookup.begin();
  EXPECT_EQ(names.ask("listed.test").addresses, Texts{"10.9.9.8"});
}

TEST(NameLookup, AsksTheServersOfTheConfigurationAndSeesItChange) {
  enterOwnRoot();
  enterOwnNetwork();
  constexpr std::uint16_t kDns = 53;
  const DnsServer first({{"a.test", at({"10.0.0.1"})}}, "127.0.0.2", kDns);
  const DnsServer second({{"a.test", at({"10.0.0.2"})}}, "127.0.0.3", kDns);
  write("/etc/resolv.conf", "nameserver 127.0.0.2\n");
  Names names{NameSource{}};
  EXPECT_EQ(names.ask("a.test").addresses, Texts{"10.0.0.1"});
  write("/etc/resolv.conf", "nameserver 127.0.0.3\n");
  names.lookup.begin();
  EXPECT_EQ(names.ask("a.test").addresses, Texts{"10.0.0.2"});
}

}  // namespace
