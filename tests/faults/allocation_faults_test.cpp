// Makes each allocation of the parsers, tables and caches fail once. The program does not crash and
// leaks nothing, and the next call works as if the failure had not happened.
#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/visible.h"
#include "dbus/valid_text.h"
#include "domain/canonical_url.h"
#include "domain/public_suffix.h"
#include "domain/tld.h"
#include "domain/url_host.h"
#include "engine/host/lookup_cache.h"
#include "engine/host/name_lookup.h"
#include "engine/pac_engine.h"
#include "engine/wire/protocol.h"
#include "fetcher/pac_fetcher.h"
#include "fetcher/target_file.h"
#include "pac/pac_parser.h"
#include "pac/proxy_url_cache.h"
#include "platform/netservice/dhcp_conf.h"
#include "platform/netservice/dhcp_info.h"
#include "platform/netservice/lease_text.h"
#include "platform/process/trace.h"
#include "service/records/proxy_config_owner.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/own_root.h"
#include "tests/unit/engine/dns_server.h"

namespace {

// Longer than a text that a std::string stores without an allocation.
const std::string kLong(100, 'x');
const std::string kSearchList = "corp.engineering.example.co.uk laboratory.example.org lan";

using Entries = std::vector<std::pair<int, std::string>>;

Entries entriesOf(const ProxyUrlSettings& settings) {
  Entries entries;
  for (const auto& setting : settings) entries.emplace_back(setting.type, setting.url);
  return entries;
}

void writeText(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

TEST(AllocationFault, IsBorneByTheSuffixLookups) {
  EXPECT_GE(failEachAllocation([] { return topLevelDomain(kLong + ".example.co.uk"); }), 2);
  EXPECT_GE(failEachAllocation([] { return isEffectiveTld(kLong + ".co.uk"); }), 2);
  EXPECT_GE(failEachAllocation([] { return isPublicSuffix(kLong + ".kobe.jp"); }), 2);
}

TEST(AllocationFault, IsBorneByTheHostOfAUrl) {
  EXPECT_GE(failEachAllocation([] {
              const HeapText host(getHost("http://" + kLong + ":8080/path"));
              return kLong == host.get();
            }),
            2);
}

TEST(AllocationFault, IsBorneByTheCandidateUrls) {
  const PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  EXPECT_GE(failEachAllocation([&] { return fetcher.wpadUrlCandidatesFromDomain(kSearchList); }),
            10);
}

TEST(AllocationFault, IsBorneByTheResolverAndTheLeaseFile) {
  enterOwnRoot();
  writeText("/tmp/.resolv.conf.dnsmasq", "search " + kSearchList + "\n");
  writeText("/usr/local/lumad/dhcp.conf", "wpad='http://" + kLong + "/p.pac'\n");
  const PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  EXPECT_GE(failEachAllocation([&] { return fetcher.getDomainName(); }), 2);
  EXPECT_GE(failEachAllocation([] {
              DhcpInfo info;
              const int trouble = getdhcpinfo(&info);
              return std::pair(trouble, std::string(info.option252));
            }),
            3);
}

TEST(AllocationFault, IsBorneByTheLookAtADownload) {
  enterOwnRoot();
  const std::string path = "/tmp/proxymanager.pac";
  writeText(path, kLong + "\n" + kLong + kLong + "FindProxyForURL\n");
  EXPECT_GE(failEachAllocation([&] { return PACFetcher::isValidPacFile(path); }, false), 2);
}

TEST(AllocationFault, IsBorneByTheFileForADownload) {
  enterOwnRoot();
  const std::string path = "/tmp/proxymanager.pac.tmp";
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();
  EXPECT_GE(failEachAllocation([&] { return static_cast<bool>(fetcher::createTargetFile(path)); }),
            1);
  EXPECT_EQ(descriptors(), before);
}

// Makes the same call as the service: the caller keeps the texts.
TEST(AllocationFault, IsBorneByANewConfiguration) {
  std::string url = "http://" + kLong;
  std::string other = "http://other/" + kLong;
  PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
  EXPECT_GE(failEachAllocation([&] {
              ProxyConfig config;
              config.mode = manual;
              config.pacurl = url.data();
              config.proxyurl = other.data();
              fetcher.updateProxyMgrConfig(config);
              return true;
            }),
            kMallocFails ? 2 : 0);
}

TEST(AllocationFault, IsBorneByTheParsingOfAResult) {
  const std::string result = "PROXY " + kLong + ":1; SOCKS " + kLong + ":2;unknown; DIRECT";
  EXPECT_GE(failEachAllocation([&] {
              ProxyUrlSettings settings = PacParser::proxys2ProxySettings(result);
              const bool right = settings.size() == 3;
              PacParser::clearProxySettings(settings);
              return right;
            }),
            5);
}

TEST(AllocationFault, IsBorneByTheAnswersOfAParser) {
  const std::string text = "PROXY " + kLong + ":1; DIRECT";
  EXPECT_GE(failEachAllocation([&] {
              PacParser parser(nullptr, false);
              HeapText result(heapCopy(text.c_str()));
              PacParser::proxyFound(result.release(), &parser, const_cast<char*>(kLong.c_str()));
              return entriesOf(parser.getProxy("http://" + kLong + "/"));
            }),
            10);
}

// If a query fails in the middle, the stored entries keep their order.
TEST(AllocationFault, LeavesTheCacheAsItWas) {
  ProxyUrlCache cache(2, nullptr, nullptr);
  cache.set("first", {{1, nullptr}});
  cache.set(kLong, {{2, nullptr}});
  EXPECT_GE(failEachAllocation([&] {
              ProxyUrlSettings list;
              return cache.get(kLong, list) && list.size() == 1 && list[0].type == 2;
            }),
            1);
  ProxyUrlSettings list;
  EXPECT_TRUE(cache.get("first", list));
}

TEST(AllocationFault, IsBorneByTheReadingOfAScript) {
  enterOwnRoot();
  const std::string path = "/tmp/proxymanager.pac";
  writeText(path, "function FindProxyForURL() {}\n" + std::string(20'000, ' '));
  EXPECT_GE(failEachAllocation(
                [&] {
                  PacParser parser(nullptr, false);
                  return parser.readPacFile(path);
                },
                0),
            kMallocFails ? 5 : 1);
}

TEST(AllocationFault, IsBorneByTheTextsForTheBus) {
  EXPECT_GE(failEachAllocation([] { return validText(kLong + "\xff"); }), 2);
}

TEST(AllocationFault, IsBorneByTheTextOfALease) {
  using namespace netservice;
  const std::string hex(200, '6');
  const LeaseValues values{"eth0", hex, "example.com", kSearchList};
  for (const auto encoding : {LeaseEncoding::plain, LeaseEncoding::escaped, LeaseEncoding::hex}) {
    EXPECT_GE(failEachAllocation([&] { return leaseText(encoding, values); }), 5);
    EXPECT_GE(failEachAllocation([&] { return resolverText(encoding, values); }), 5);
  }
  const std::string lease = leaseText(LeaseEncoding::plain, values);
  EXPECT_GE(failEachAllocation([&] { return isLeaseOf(lease, "a_long_name_of_an_interface"); }), 1);
  EXPECT_GE(failEachAllocation([] { return wpadValue("wpad=\"http://" + kLong + "\"\n"); }), 3);
}

// A signal handler calls this function, so it must not throw.
TEST(AllocationFault, IsAFailureToReadTheTraceValues) {
  enterOwnRoot();
  writeText("/etc/proxymanagerd/trace.conf", "baseseverity=7\nthis is no line\n");
  for (TraceValues kept; TraceValues* const record : {&kept, static_cast<TraceValues*>(nullptr)}) {
    EXPECT_GE(failEachAllocation(
                  [&] {
                    const int mask = setlogmask(0);
                    int result = 0;
                    try {
                      result = settrcvalues("proxymanagerd", record);
                    } catch (const std::bad_alloc&) {
                      result = -2;
                    }
                    setlogmask(mask);
                    return std::pair(result, kept);
                  },
                  std::pair(-1, record != nullptr ? TraceValues{} : kept)),
              1);
  }
}

TEST(AllocationFault, IsBorneByTheMessagesOfTheLibrary) {
  using namespace pac_engine;
  const std::vector<FromLibrary> messages{Start{1000, 7}, Evaluate{1, kLong, kLong},
                                          Addresses{{"2001:db8::1234:5678:9abc", "192.0.2.1"}}};
  for (const auto& message : messages) {
    EXPECT_GE(failEachAllocation([&] {
                const std::string bytes = encode(message);
                const auto decoded = decodeFromLibrary(bytes);
                return decoded ? encode(*decoded) : std::string();
              }),
              message.index() == 0 ? 0 : 2);
  }
}

TEST(AllocationFault, IsBorneByTheMessagesOfTheWorker) {
  using namespace pac_engine;
  const std::vector<FromWorker> messages{Refused{3, kLong}, Resolve{AddressFamily::kAny, kLong},
                                         Alert{kLong}, Answer{4, kLong}, NoAnswer{5, 6, kLong}};
  for (const auto& message : messages) {
    EXPECT_GE(failEachAllocation([&] {
                const std::string bytes = encode(message);
                const auto decoded = decodeFromWorker(bytes);
                return decoded ? encode(*decoded) : std::string();
              }),
              2);
  }
}

TEST(AllocationFault, IsBorneByTheCleaningOfAUrl) {
  const std::string url = "https://user:secret@" + kLong + ".EXAMPLE:443/private?secret#secret";
  EXPECT_GE(failEachAllocation([&] { return domain::canonicalUrl(url); }), 4);
  EXPECT_GE(failEachAllocation([] { return base::visible(kLong + "\n"); }), 2);
  EXPECT_GE(failEachAllocation([] { return pac_engine::describe({kLong, 12}); }), 2);
}

TEST(AllocationFault, IsBorneByNames) {
  using namespace pac_engine;
  EXPECT_GE(failEachAllocation(
                [] {
                  return asciiName(
                      "b\xc3\xbc"
                      "cher." +
                      kLong.substr(0, 50));
                },
                std::optional<std::string>()),
            3);
  NameSource source;
  source.staticNames = StaticNames{{kLong, {"192.0.2.1", "2001:db8::1234:5678:9abc"}}};
  EXPECT_GE(failEachAllocation([&] {
              NameLookup names(source);
              return names.resolve(kLong, AddressFamily::kAny, {}, -1);
            }),
            10);
}

TEST(AllocationFault, IsBorneByTheLookedUpNames) {
  using pac_engine::LookupCache;
  const LookupCache::Key key(kLong, pac_engine::AddressFamily::kIpv4);
  const LookupCache::Clock::time_point now{};
  EXPECT_GE(failEachAllocation([&] {
              LookupCache cache;
              cache.store(key, {kLong}, std::chrono::seconds(60), now);
              cache.store(key, {kLong}, std::chrono::seconds(60), now);
              return cache.find(key, now).value_or(LookupCache::Addresses());
            }),
            8);
}

TEST(AllocationFault, InAQuestionToTheWorkerCostsThatQuestionAlone) {
  pac_engine::Problem problem;
  pac_engine::Options patient;
  patient.timeLimit = std::chrono::seconds(60);  // never reached: the script ends at once
  // With a lifetime of 0 s, the name is looked up for each question.
  const DnsServer server({{"a.example", DnsName{{"10.0.0.1"}, 0}}});
  patient.names.nameServers = server.address();
  const auto engine = pac_engine::Engine::load(
      "function FindProxyForURL(url, host) {"
      "  alert(host); myIpAddressEx();"
      "  return isResolvable('a.example') ? 'PROXY ' + host : 'DIRECT'; }",
      patient, problem);
  ASSERT_NE(engine, nullptr) << problem.message;
  const std::string host = kLong;
  const std::string right = "PROXY " + host;
  ASSERT_EQ(engine->evaluate("http://h/", host).result, right);
  setlogmask(LOG_MASK(LOG_EMERG));  // the capture of log lines would also allocate
  int failed = 0;
  int lost = 0;
  for (bool more = true; more; failed += more ? 1 : 0) {
    failAllocationsAfter(failed);
    std::optional<std::string> answer;
    try {
      answer = engine->evaluate("http://h/", host).result;
    } catch (const std::bad_alloc&) {
    }
    more = allowAllocations();
    if (answer && *answer != right) {
      EXPECT_EQ(*answer, "DIRECT") << "allocation " << failed;
      ++lost;
    }
    ASSERT_EQ(engine->evaluate("http://h/", host).result, right) << "after allocation " << failed;
  }
  EXPECT_GE(failed, 8);
  // c-ares allocates only with malloc. With sanitizers, malloc never fails, so no lookup fails.
  EXPECT_GE(lost, kMallocFails ? 5 : 0) << "no allocation of a lookup has failed";
  EXPECT_GT(server.questions("a.example"), failed) << "the name was not looked up again";
}

TEST(AllocationFault, LeavesEachLookedUpNameItsTurnToGo) {
  using pac_engine::LookupCache;
  const LookupCache::Clock::time_point now{};
  const auto keyOf = [](std::size_t number) {
    return LookupCache::Key(kLong + std::to_string(number), pac_engine::AddressFamily::kIpv4);
  };
  LookupCache cache;
  const auto store = [&](const LookupCache::Key& key) {
    cache.store(key, {kLong}, std::chrono::seconds(60), now);
  };
  constexpr std::size_t kStored = 2 * pac_engine::kLookupCacheNames;
  for (std::size_t i = 0; i < kStored; ++i) {
    failAllocationsAfter(static_cast<int>(i % 12));
    try {
      store(keyOf(i));
    } catch (const std::bad_alloc&) {
    }
    allowAllocations();
    store(keyOf(i));
  }
  for (std::size_t i = 0; i < kStored; ++i) {
    const bool kept = i >= kStored - pac_engine::kLookupCacheNames;
    EXPECT_EQ(cache.find(keyOf(i), now).has_value(), kept) << i;
  }
}

}  // namespace
