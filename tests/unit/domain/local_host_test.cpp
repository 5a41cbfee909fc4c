#include "domain/local_host.h"

#include <gtest/gtest.h>

#include "domain/canonical_url.h"

namespace {

bool isLocal(const char* url) {
  return domain::isLocalUrl(domain::canonicalUrl(url).value());
}

TEST(LocalHost, IsThisMachineOrThisLinkInAnySpelling) {
  for (const char* url : {"http://localhost/",
                          "https://LOCALHOST:8443/x",
                          "http://localhost./",
                          "ws://a.b.localhost/",
                          "http://a.localhost./",
                          "http://127.0.0.1/",
                          "http://127.255.255.255/",
                          "http://127.1:80/",
                          "http://0x7f000001/",
                          "http://127.0.0.1./",
                          "http://0.0.0.0:9/",
                          "http://0/",
                          "http://169.254.0.1/",
                          "http://169.254.255.255/",
                          "http://[::1]:80/",
                          "http://[::]/",
                          "http://[0:0:0:0:0:0:0:1]/",
                          "http://[fe80::1%25eth0]/",
                          "http://[febf::1]/",
                          "http://[::ffff:127.0.0.1]/",
                          "http://[::ffff:7f00:1]/",
                          "http://[::ffff:169.254.3.4]/",
                          "http://me:pw@localhost/",
                          "http://%6cocalhost/",
                          "http://１２７.0.0.1/",
                          "http://ＬｏｃａｌＨｏｓｔ/",
                          "http://127。0．0｡1/",
                          "http://%EF%BD%8Cocalhost/",
                          "１２７.1:80",
                          "localhost",
                          "localhost:80/x",
                          "127.1",
                          "::1",
                          "[::1]:80",
                          "me:pw@LocalHost"}) {
    EXPECT_TRUE(isLocal(url)) << url;
  }
}

TEST(LocalHost, IsNoOtherHost) {
  for (const char* url : {"http://localhost.example/",
                          "http://notlocalhost/",
                          "http://localhost@www.example/",
                          "http://localhost%2541.evil.example/",
                          "127.0.0.1%2541.evil.example",
                          "127.0.0.1 www.corp.example",
                          "http://１２８.0.0.1/",
                          "http://126.255.255.255/",
                          "http://128.0.0.1/",
                          "http://169.253.255.255/",
                          "http://169.255.0.0/",
                          "http://0.0.0.1/",
                          "http://127.0.0.1.nip.example/",
                          "http://[::2]/",
                          "http://[fe7f::1]/",
                          "http://[fec0::1]/",
                          "http://[::ffff:10.0.0.1]/",
                          "http:///",
                          "http://localhost../",
                          "http://10.0.0.1/",
                          "",
                          "file:///localhost",
                          "www.example?x=@localhost",
                          "http://www.example/@localhost"}) {
    EXPECT_FALSE(isLocal(url)) << url;
  }
}

}  // namespace
