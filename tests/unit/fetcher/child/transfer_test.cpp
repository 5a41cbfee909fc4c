#include "fetcher/child/transfer.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/unique_fd.h"
#include "tests/support/http_server.h"
#include "tests/unit/fetcher/child/curl_probe.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace {

constexpr char kFile[] = "/tmp/body";

class Transfer : public OwnRootTest {
 protected:
  fetcher::FetchResult fetch(const std::string& url) {
    const base::UniqueFd file(open(kFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                     &curl_easy_cleanup);
    return fetch_child::transfer(handle.get(), {30, 512000, 5, url}, file.get());
  }

  HttpServer mServer;
};

TEST_F(Transfer, SetsTheSevenOptionsInTheirOrderAndNoOther) {
  mServer.route("/p.pac", httpResponse("200 OK", script()));
  fetch(mServer.url("/p.pac"));
  const auto options = curlOptions();
  ASSERT_EQ(options.size(), 7u);
  EXPECT_EQ(options[0].option, CURLOPT_URL);
  EXPECT_EQ(options[1].option, CURLOPT_TIMEOUT);
  EXPECT_EQ(options[1].value, 30);
  EXPECT_EQ(options[2].option, CURLOPT_MAXFILESIZE);
  EXPECT_EQ(options[2].value, 512000);
  EXPECT_EQ(options[3].option, CURLOPT_WRITEFUNCTION);
  EXPECT_EQ(options[3].value, 0);
  EXPECT_EQ(options[4].option, CURLOPT_WRITEDATA);
  EXPECT_NE(options[4].value, 0);
  EXPECT_EQ(options[5].option, CURLOPT_FOLLOWLOCATION);
  EXPECT_EQ(options[5].value, 1);
  EXPECT_EQ(options[6].option, CURLOPT_MAXREDIRS);
  EXPECT_EQ(options[6].value, 5);
}

TEST_F(Transfer, ReportsTheCodeAndTheSchemeOfASuccess) {
  mServer.route("/p.pac", httpResponse("404 Not Found", script()));
  const auto result = fetch(mServer.url("/p.pac"));
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.responseCode, 404);
  EXPECT_EQ(result.scheme, "HTTP");
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(readFile(kFile), script());
}

TEST_F(Transfer, ReportsLibcurlsTextOfAFailure) {
  const auto result = fetch("http://wpad.invalid:1/wpad.dat");
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.responseCode, 0);
  EXPECT_EQ(result.error, curl_easy_strerror(CURLE_COULDNT_RESOLVE_HOST));
}

TEST_F(Transfer, LeavesWhatIsNoUrlToLibcurl) {
  for (const char* url : {"", "http://exa mple/\x01"}) EXPECT_FALSE(fetch(url).success);
  EXPECT_EQ(curlTransfers(), 2);
}

class RefusedScheme : public Transfer, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedScheme, NeverReachesLibcurl) {
  const auto result = fetch(GetParam());
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.error, curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL));
  EXPECT_EQ(curlTransfers(), 0);
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

}  // namespace
