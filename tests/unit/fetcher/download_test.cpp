#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "fetcher/pac_fetcher.h"
#include "tests/support/http_server.h"
#include "tests/support/log_capture.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace {

const std::string kTarget = "/tmp/proxymanager.pac.tmp";
constexpr std::size_t kLimit = 512000;

class Download : public OwnRootTest {
 protected:
  void SetUp() override {
    for (const char* name : {"http_proxy", "https_proxy", "ftp_proxy", "all_proxy", "no_proxy",
                             "HTTPS_PROXY", "FTP_PROXY", "ALL_PROXY", "NO_PROXY"}) {
      unsetenv(name);
    }
  }
  static bool fetch(const std::string& url) { return PACFetcher::fileDownload(url, kTarget); }

  void expectSucceeded(int code) {
    EXPECT_THAT(
        logLines(),
        ElementsAre(LogLine{LOG_INFO, "PACFetcher-fileDownload called"},
                    LogLine{LOG_DEBUG, "PACFetcher-fileDownload result success:true, code:" +
                                           std::to_string(code)}));
  }
  void expectFailed(int code) {
    EXPECT_THAT(
        logLines(),
        ElementsAre(LogLine{LOG_INFO, "PACFetcher-fileDownload called"},
                    LogLine{LOG_DEBUG, "PACFetcher-fileDownload result success:false, code:" +
                                           std::to_string(code)},
                    LogLine{LOG_ERR, "PACFetcher-fileDownload failed to remove file " + kTarget +
                                         " after unsuccessful download: 0"}));
    EXPECT_FALSE(fs::exists(fs::symlink_status(kTarget)));
  }

  HttpServer mServer;
};

std::string chunked(const std::string& body) {
  char size[32];
  std::snprintf(size, sizeof size, "%zx\r\n", body.size());
  return "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n" +
         std::string(size) + body + "\r\n0\r\n\r\n";
}

TEST_F(Download, PutsTheBodyIntoTheFile) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(readFile(kTarget), script());
  EXPECT_TRUE(PACFetcher::isValidPacFile(kTarget));
  expectSucceeded(200);
}

TEST_F(Download, SendsNoUserAgent) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  fetch(mServer.url("/p.pac"));
  const std::string request = mServer.lastRequest("/p.pac");
  EXPECT_EQ(request.find("User-Agent"), std::string::npos);
  EXPECT_EQ(request.find("Accept-Encoding"), std::string::npos);
}

TEST_F(Download, FailsWhereTheFileCannotBeMade) {
  EXPECT_FALSE(PACFetcher::fileDownload(mServer.url("/p.pac"), "/tmp/none/file"));
  EXPECT_THAT(logLines(),
              ElementsAre(LogLine{LOG_INFO, "PACFetcher-fileDownload called"},
                          LogLine{LOG_ERR,
                                  "PACFetcher-fileDownload failed to open file /tmp/none/file, "
                                  "url:" +
                                      mServer.url("/p.pac")}));
  EXPECT_EQ(mServer.hits("/p.pac"), 0);
}

TEST_F(Download, FailsOnAnEmptyUrl) {
  EXPECT_FALSE(fetch(""));
  expectFailed(0);
}

TEST_F(Download, FailsOnAMalformedUrl) {
  EXPECT_FALSE(fetch("http://exa mple/\x01"));
  expectFailed(0);
}

TEST_F(Download, TakesAUrlWithoutASchemeAsHttp) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch("127.0.0.1:" + std::to_string(mServer.port()) + "/p.pac"));
  expectSucceeded(200);
}

TEST_F(Download, ReadsTheSchemeWithoutRegardToCase) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch("HTTP://127.0.0.1:" + std::to_string(mServer.port()) + "/p.pac"));
}

TEST_F(Download, FailsWhereNobodyListens) {
  // This socket stays open, so that no other process listens on its port.
  const int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(bind(bound, generic, size), 0);
  ASSERT_EQ(getsockname(bound, generic, &size), 0);
  EXPECT_FALSE(fetch("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/"));
  expectFailed(0);
  close(bound);
}

TEST_F(Download, FailsOnANameThatDoesNotResolve) {
  EXPECT_FALSE(fetch("http://wpad.invalid:1/wpad.dat"));
  expectFailed(0);
}

TEST_F(Download, WorksWithAnIpv6Literal) {
  HttpServer six(TcpServer::Family::ipv6);
  six.route("/p.pac", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch(six.url("/p.pac")));
}

// By default, libcurl uses a proxy from the environment. The daemon does not change this.
TEST_F(Download, UsesAProxyFromTheEnvironmentAsLibcurlDoes) {
  mServer.route("http://wpad.invalid/wpad.dat", httpResponse("200 OK", script()));
  setenv("http_proxy", mServer.url("").c_str(), 1);
  EXPECT_TRUE(fetch("http://wpad.invalid/wpad.dat"));
}

class RefusedScheme : public Download, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedScheme, FailsTheTransfer) {
  writeFile("/tmp/secret", script());
  EXPECT_FALSE(fetch(GetParam()));
  expectFailed(0);
}

INSTANTIATE_TEST_SUITE_P(OfAnyKind, RefusedScheme,
                         testing::Values("file:///tmp/secret", "FILE:/tmp/secret",
                                         "ftp://127.0.0.1/x", "ftps://127.0.0.1/x",
                                         "gopher://127.0.0.1:1/_x", "dict://127.0.0.1/x",
                                         "tftp://127.0.0.1/x", "ldap://127.0.0.1/x",
                                         "data://text/plain,FindProxyForURL", "foo://bar/",
                                         "ws://127.0.0.1/x",
                                         // libcurl guesses the schemes of these two URLs from the
                                         // first label
                                         "ftp.example.invalid/x", "imap.example.invalid"));

TEST_F(Download, FailsOnADataUrl) {
  EXPECT_FALSE(fetch("data:text/plain,FindProxyForURL"));
  expectFailed(0);
}

TEST_F(Download, CountsAnErrorPageAsASuccess) {
  EXPECT_TRUE(fetch(mServer.url("/missing")));
  EXPECT_EQ(readFile(kTarget), "no such page\n");
  EXPECT_FALSE(PACFetcher::isValidPacFile(kTarget));
  expectSucceeded(404);
}

TEST_F(Download, TakesAScriptFromAnErrorPage) {
  mServer.route("/p.pac", httpResponse("404 Not Found", script()));
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_TRUE(PACFetcher::isValidPacFile(kTarget));
  expectSucceeded(404);
}

TEST_F(Download, LeavesAnEmptyFileAfterAnAnswerWithoutABody) {
  mServer.route("/p.pac", "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n");
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(readFile(kTarget), "");
  EXPECT_FALSE(PACFetcher::isValidPacFile(kTarget));
  expectSucceeded(204);
}

TEST_F(Download, TakesHttp10WithoutALength) {
  mServer.route("/p.pac", "HTTP/1.0 200 OK\r\n\r\n" + script());
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(readFile(kTarget), script());
}

TEST_F(Download, RefusesAnAnswerWithoutAHead) {
  mServer.route("/p.pac", script());
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
}

TEST_F(Download, FollowsFiveRedirects) {
  for (int i = 1; i <= 5; ++i) {
    mServer.route("/" + std::to_string(i), httpRedirect("/" + std::to_string(i + 1)));
  }
  mServer.route("/6", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch(mServer.url("/1")));
  EXPECT_EQ(readFile(kTarget), script());
  expectSucceeded(200);
}

TEST_F(Download, DoesNotFollowTheSixthRedirect) {
  for (int i = 1; i <= 6; ++i) {
    mServer.route("/" + std::to_string(i), httpRedirect("/" + std::to_string(i + 1)));
  }
  mServer.route("/7", httpResponse("200 OK", script()));
  EXPECT_FALSE(fetch(mServer.url("/1")));
  EXPECT_EQ(mServer.hits("/7"), 0);
  expectFailed(302);
}

TEST_F(Download, EndsARedirectLoopAfterFiveTurns) {
  mServer.route("/loop", httpRedirect("/loop"));
  EXPECT_FALSE(fetch(mServer.url("/loop")));
  EXPECT_EQ(mServer.hits("/loop"), 6);
  expectFailed(302);
}

class RefusedRedirect : public Download, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedRedirect, FailsTheTransfer) {
  writeFile("/tmp/secret", script());
  mServer.route("/p.pac", httpRedirect(GetParam()));
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  expectFailed(302);
}

INSTANTIATE_TEST_SUITE_P(OfAnyKind, RefusedRedirect,
                         testing::Values("file:///tmp/secret", "gopher://127.0.0.1:1/_x",
                                         "dict://127.0.0.1:1/x", "data://text/plain,x",
                                         "foo://bar/"));

// An ftp server that sends a script. It supports only the commands that libcurl uses.
class FtpServer {
 public:
  FtpServer()
      : mData([](Connection& peer) { peer.send(script()); }),
        mControl([this](Connection& peer) { talk(peer); }) {}
  std::string url() const { return "ftp://127.0.0.1:" + std::to_string(mControl.port()) + "/p"; }
  int connections() const { return mControl.connections(); }

 private:
  void talk(Connection& peer) {
    peer.send("220 ready\r\n");
    for (;;) {
      const std::string line = peer.readUntil("\r\n");
      if (line.empty()) return;
      peer.send(answer(line.substr(0, 4)));
    }
  }
  std::string answer(const std::string& command) const {
    if (command == "USER") return "230 welcome\r\n";
    if (command == "PWD\r") return "257 \"/\"\r\n";
    if (command == "EPSV") return "229 (|||" + std::to_string(mData.port()) + "|)\r\n";
    if (command == "SIZE") return "213 " + std::to_string(script().size()) + "\r\n";
    if (command == "RETR") return "150 here\r\n226 done\r\n";
    return "200 well\r\n";
  }

  TcpServer mData;
  TcpServer mControl;
};

TEST_F(Download, FailsOnARedirectToFtpEvenWhereAScriptComesBack) {
  FtpServer ftp;
  mServer.route("/p.pac", httpRedirect(ftp.url()));
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  // By default, libcurl follows a redirect to ftp. The daemon then refuses the answer.
  EXPECT_EQ(ftp.connections(), 1);
  expectFailed(226);
}

TEST_F(Download, TakesAnAnnouncedBodyOf512000Bytes) {
  mServer.route("/p.pac", httpResponse("200 OK", std::string(kLimit, 'x')));
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(fs::file_size(kTarget), kLimit);
}

TEST_F(Download, RefusesAnAnnouncedBodyOf512001Bytes) {
  mServer.route("/p.pac", httpResponse("200 OK", std::string(kLimit + 1, 'x')));
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  expectFailed(200);
}

TEST_F(Download, TakesAnUnannouncedBodyOf512000Bytes) {
  mServer.route("/close", "HTTP/1.1 200 OK\r\n\r\n" + std::string(kLimit, 'x'));
  mServer.route("/chunks", chunked(std::string(kLimit, 'x')));
  for (const char* path : {"/close", "/chunks"}) {
    EXPECT_TRUE(fetch(mServer.url(path)));
    EXPECT_EQ(fs::file_size(kTarget), kLimit);
  }
}

TEST_F(Download, RefusesAnUnannouncedBodyOf512001Bytes) {
  mServer.route("/close", "HTTP/1.1 200 OK\r\n\r\n" + std::string(kLimit + 1, 'x'));
  mServer.route("/chunks", chunked(std::string(kLimit + 1, 'x')));
  for (const char* path : {"/close", "/chunks"}) {
    clearLog();
    EXPECT_FALSE(fetch(mServer.url(path)));
    expectFailed(200);
  }
}

TEST_F(Download, StopsAnEndlessBodyAtTheLimit) {
  mServer.route("/p.pac", [](Connection& peer) {
    const std::string block(16384, 'x');
    peer.send("HTTP/1.1 200 OK\r\n\r\n");
    while (peer.send(block)) continue;
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  // The limit of 25 s is below the transfer's own limit of 30 s. The download takes milliseconds,
  // but the machine may pause.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(25));
  expectFailed(200);
}

TEST_F(Download, StoresAnUnaskedGzipBodyAsItCame) {
  const std::string zipped("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03\x4b\xcc\x4b\x01\x00", 15);
  mServer.route("/p.pac", httpResponse("200 OK", zipped, "Content-Encoding: gzip\r\n"));
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(readFile(kTarget), zipped);
  EXPECT_FALSE(PACFetcher::isValidPacFile(kTarget));
}

TEST_F(Download, FailsOnABodyShorterThanAnnounced) {
  mServer.route("/p.pac", "HTTP/1.1 200 OK\r\nContent-Length: 5000\r\n\r\n" + script());
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  expectFailed(200);
}

TEST_F(Download, FailsOnAChunkedBodyWithoutItsEnd) {
  mServer.route("/p.pac",
                "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1000\r\n" + script());
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  expectFailed(200);
}

TEST_F(Download, FailsOnAConnectionResetInTheMiddle) {
  mServer.route("/p.pac", [](Connection& peer) {
    peer.send("HTTP/1.1 200 OK\r\n\r\n" + script());
    peer.resetOnClose();
  });
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  EXPECT_FALSE(fs::exists(kTarget));
}

TEST_F(Download, FailsWhenTheDiskIsFull) {
  fs::create_directory("/run/small");
  ASSERT_EQ(mount("tmpfs", "/run/small", "tmpfs", 0, "size=64k"), 0);
  mServer.route("/p.pac", httpResponse("200 OK", script() + std::string(100000, ' ')));
  EXPECT_FALSE(PACFetcher::fileDownload(mServer.url("/p.pac"), "/run/small/p.tmp"));
  EXPECT_FALSE(fs::exists("/run/small/p.tmp"));
  EXPECT_TRUE(logged(LOG_ERR,
                     "PACFetcher-fileDownload failed to remove file /run/small/p.tmp after "
                     "unsuccessful download: 0"));
}

TEST_F(Download, SaysTheErrorOfAFailedRemoval) {
  mServer.route("/p.pac", [](Connection& peer) {
    fs::remove(kTarget);
    peer.resetOnClose();
  });
  EXPECT_FALSE(fetch(mServer.url("/p.pac")));
  EXPECT_TRUE(logged(LOG_ERR,
                     "PACFetcher-fileDownload failed to remove file /tmp/proxymanager.pac.tmp "
                     "after unsuccessful download: -1"));
}

TEST_F(Download, NeverWritesThroughAPlantedLink) {
  writeFile("/tmp/victim", "victim");
  fs::create_symlink("/tmp/victim", kTarget);
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  EXPECT_TRUE(fetch(mServer.url("/p.pac")));
  EXPECT_EQ(readFile("/tmp/victim"), "victim");
  EXPECT_EQ(readFile(kTarget), script());
}

TEST_F(Download, SaysThatAPlantedFolderIsInTheWay) {
  fs::create_directory(kTarget);
  EXPECT_FALSE(fetch("http://127.0.0.1:1/"));
  EXPECT_TRUE(logged(LOG_ERR,
                     "PACFetcher-fileDownload failed to open file /tmp/proxymanager.pac.tmp, "
                     "url:http://127.0.0.1:1/"));
}

TEST_F(Download, IsAnInvalidScriptWhereTheFileDoesNotExist) {
  EXPECT_FALSE(PACFetcher::isValidPacFile("/tmp/none"));
  EXPECT_TRUE(logLines().empty());
}

TEST_F(Download, IsAValidScriptWithTheNameInAComment) {
  writeFile(kTarget, "// nothing\n  // not FindProxyForURL yet");
  EXPECT_TRUE(PACFetcher::isValidPacFile(kTarget));
  EXPECT_TRUE(logLines().empty());
}

TEST_F(Download, IsAnInvalidScriptWithTheNameInOtherCaseOrAcrossLines) {
  writeFile(kTarget, "findproxyforurl\nFindProxy\nForURL\n");
  EXPECT_FALSE(PACFetcher::isValidPacFile(kTarget));
}

TEST_F(Download, IsAnInvalidScriptAsAFolder) {
  EXPECT_FALSE(PACFetcher::isValidPacFile("/tmp"));
}

}  // namespace
