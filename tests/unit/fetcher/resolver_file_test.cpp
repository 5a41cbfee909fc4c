#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "fetcher/pac_fetcher.h"
#include "tests/support/log_capture.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace {

const std::string kFile = "/tmp/.resolv.conf.dnsmasq";

class ResolverFile : public OwnRootTest {
 protected:
  static std::string domainOf(const std::string& text) {
    writeFile(kFile, text);
    return domain();
  }
  static std::string domain() {
    const PACFetcher fetcher(nullptr, "/tmp/proxymanager.pac", 1800);
    clearLog();
    std::string name = fetcher.getDomainName();
    return name;
  }
  static void expectNotOpened() {
    EXPECT_EQ(domain(), "");
    EXPECT_EQ(countLog(LOG_INFO, "PACFetcher-getDomainName called"), 1);
    EXPECT_EQ(countLog(LOG_ERR, "PACFetcher-getDomainName open:/tmp/.resolv.conf.dnsmasq failed"),
              1);
  }
};

TEST_F(ResolverFile, GivesTheDomain) {
  EXPECT_EQ(domainOf("nameserver 10.0.0.1\ndomain example.com\n"), "example.com");
  EXPECT_TRUE(logged(LOG_INFO, "PACFetcher-getDomainName called"));
  EXPECT_EQ(countLog(LOG_ERR, "PACFetcher-getDomainName open:/tmp/.resolv.conf.dnsmasq failed"), 0);
}

TEST_F(ResolverFile, GivesTheWholeSearchList) {
  EXPECT_EQ(domainOf("search a.example.com b.example.org\n"), "a.example.com b.example.org");
}

TEST_F(ResolverFile, GivesTheLastOfSeveralLinesWhateverItsKeyword) {
  EXPECT_EQ(domainOf("domain a.example.com\nsearch b.example.com c.example.org\n"),
            "b.example.com c.example.org");
  EXPECT_EQ(domainOf("search b.example.com c.example.org\ndomain a.example.com\n"),
            "a.example.com");
}

TEST_F(ResolverFile, GivesWhatFollowsTheLinesFirstBlankNotTheKeyword) {
  EXPECT_EQ(domainOf("# search x.example.com\n"), "search x.example.com");
  EXPECT_EQ(domainOf("  domain example.com\n"), " domain example.com");
  EXPECT_EQ(domainOf("mydomain example.com\n"), "example.com");
}

TEST_F(ResolverFile, GivesNothingWithoutAKeywordAndItsBlank) {
  EXPECT_EQ(domainOf(""), "");
  EXPECT_EQ(domainOf("\n\nnameserver 10.0.0.1\nsearch\nsearch\texample.com\n"), "");
}

TEST_F(ResolverFile, TakesTheLastLineWithoutANewlineAndSkipsEmptyOnes) {
  EXPECT_EQ(domainOf("\n\nsearch a.com\n\nsearch b.com"), "b.com");
}

TEST_F(ResolverFile, CountsAsNotOpenedWhereItIsMissing) {
  expectNotOpened();
}

TEST_F(ResolverFile, CountsAsNotOpenedAsAFifo) {
  ASSERT_EQ(mkfifo(kFile.c_str(), 0666), 0);
  expectNotOpened();
}

TEST_F(ResolverFile, CountsAsNotOpenedAsALink) {
  writeFile("/tmp/other", "domain example.com\n");
  fs::create_symlink("/tmp/other", kFile);
  expectNotOpened();
}

// If the kernel allows such hard links, any user can give this name to a readable file of root.
TEST_F(ResolverFile, CountsAsNotOpenedWithASecondName) {
  writeFile("/tmp/proxymanager.pac", "// search evil.example\n");
  fs::create_hard_link("/tmp/proxymanager.pac", kFile);
  expectNotOpened();
  fs::remove("/tmp/proxymanager.pac");
  EXPECT_EQ(domain(), "search evil.example");
}

TEST_F(ResolverFile, CountsAsNotOpenedAsAFolder) {
  fs::create_directory(kFile);
  expectNotOpened();
}

TEST_F(ResolverFile, CountsAsNotOpenedWhereItIsAnotherUsers) {
  writeFile(kFile, "domain example.com\n");
  if (chown(kFile.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "needs a second user";
  expectNotOpened();
}

TEST_F(ResolverFile, MayBe64KiBLong) {
  std::string text = "domain example.com\n#";
  text.resize(64 * 1024, 'x');
  EXPECT_EQ(domainOf(text), "example.com");
}

TEST_F(ResolverFile, CountsAsNotOpenedWithOneByteMore) {
  std::string text = "domain example.com\n#";
  text.resize(64 * 1024 + 1, 'x');
  writeFile(kFile, text);
  expectNotOpened();
}

TEST_F(ResolverFile, MayHoldZeros) {
  EXPECT_EQ(domainOf(std::string("\0\0\ndomain example.com\n", 21)), "example.com");
}

}  // namespace
