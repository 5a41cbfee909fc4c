// Tests the environment variables. Without a bus, these variables determine the answer.
// tests/integration/test_libproxy.py compares the results with those of libproxy itself.
#include "tests/unit/client/libproxy/libproxy_test.h"

namespace {

using ::testing::ElementsAre;

class Environment : public WithoutBus {
 protected:
  /// Whether a URL gets no proxy if http_proxy is set and no_proxy is `noProxy`.
  bool isExcepted(const std::string& url, const std::string& noProxy) {
    setenv("http_proxy", "http://e:1", 1);
    setenv("no_proxy", noProxy.c_str(), 1);
    const auto texts = ask(url);
    EXPECT_TRUE(texts == kDirect || texts == Texts{"http://e:1"}) << texts[0];
    return texts == kDirect;
  }
};

TEST_F(Environment, IsReadByEachCall) {
  EXPECT_EQ(ask(), kDirect);
  setenv("http_proxy", "http://a:1", 1);
  EXPECT_THAT(ask(), ElementsAre("http://a:1"));
  setenv("http_proxy", "socks5://b:2", 1);
  EXPECT_THAT(ask(), ElementsAre("socks5://b:2"));
  unsetenv("http_proxy");
  EXPECT_EQ(ask(), kDirect);
}

TEST_F(Environment, LowerCaseComesFirst) {
  setenv("HTTP_PROXY", "http://upper:1", 1);
  EXPECT_THAT(ask(), ElementsAre("http://upper:1"));
  setenv("http_proxy", "http://lower:1", 1);
  EXPECT_THAT(ask(), ElementsAre("http://lower:1"));
  setenv("http_proxy", "", 1);
  EXPECT_EQ(ask(), kDirect);
}

TEST_F(Environment, EverySchemeFallsBackToHttp) {
  setenv("http_proxy", "http://h:1", 1);
  setenv("all_proxy", "http://all:1", 1);
  for (const char* url : {"http://a/", "https://a/", "ftp://a/", "tcp://a:1", "none://a:1"}) {
    EXPECT_THAT(ask(url), ElementsAre("http://h:1")) << url;
  }
  setenv("https_proxy", "http://s:1", 1);
  setenv("FTP_PROXY", "http://f:1", 1);
  EXPECT_THAT(ask("https://a/"), ElementsAre("http://s:1"));
  EXPECT_THAT(ask("HTTPS://a/"), ElementsAre("http://s:1"));
  EXPECT_THAT(ask("ftp://a/"), ElementsAre("http://f:1"));
  EXPECT_THAT(ask("ftps://a/"), ElementsAre("http://h:1"));
}

TEST_F(Environment, AValueWithoutASchemeIsAnHttpProxy) {
  setenv("http_proxy", "u:p@e:3128", 1);
  EXPECT_THAT(ask(), ElementsAre("http://u:p@e:3128"));
}

TEST_F(Environment, ScriptsInAVariableAreNotEvaluated) {
  for (const char* value : {"pac+http://a/", "PAC+file:///a", "wpad://", "WPAD://"}) {
    setenv("http_proxy", value, 1);
    EXPECT_EQ(ask(), kDirect) << value;
  }
}

TEST_F(Environment, AWebRequestDoesNotChooseTheProxy) {
  setenv("HTTP_PROXY", "http://header:1", 1);
  setenv("REQUEST_METHOD", "GET", 1);
  EXPECT_EQ(ask(), kDirect);
  setenv("http_proxy", "http://own:1", 1);
  EXPECT_THAT(ask(), ElementsAre("http://own:1"));
}

TEST_F(Environment, NoProxyNamesHosts) {
  const std::string url = "http://a.Example.org/";
  for (const char* value :
       {"a.example.org", "A.EXAMPLE.ORG", ".example.org", "*.example.org", "*", "b, a.example.org",
        "b\ta.example.org", "a.example.org:80", ".org:80", "*org"}) {
    EXPECT_TRUE(isExcepted(url, value)) << value;
  }
  for (const char* value : {"", ",", "example.org", "mple.org", "a.example.org:81", "<local>", "b",
                            "a.example.org.x", "10.0.0.0/8", "/", ":", "[", "*:81"}) {
    EXPECT_FALSE(isExcepted(url, value)) << value;
  }
  EXPECT_TRUE(isExcepted("http://user:a@host:8080/", "<local>"));
  EXPECT_TRUE(isExcepted("https://host", "host:443"));
  EXPECT_TRUE(isExcepted("http://u@x@host:8080?q", "host:8080"));
}

TEST_F(Environment, NoProxyNamesAddressesAndRanges) {
  const std::string four = "http://10.1.2.3/", six = "http://[2001:db8::7]:8080/";
  for (const char* value : {"10.1.2.3", "10.0.0.0/8", "10.1.2.2/31", "0.0.0.0/0", "10.1.2.3/32",
                            "10.1.0.0/255.255.0.0", "10.1.2.3:80"}) {
    EXPECT_TRUE(isExcepted(four, value)) << value;
  }
  for (const char* value :
       {"10.1.2.4", "10.1.2.4/31", "11.0.0.0/8", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/x",
        "10.0.0.0/", "10.", "10.1.2.3:81", "::/0", "::1", "10.0.0.0/99999999999999999999"}) {
    EXPECT_FALSE(isExcepted(four, value)) << value;
  }
  for (const char* value : {"2001:db8::7", "2001:db8::/32", "[2001:db8::7]:8080", "2001:DB8:0::7",
                            "::/0", "2001:db8::7/128"}) {
    EXPECT_TRUE(isExcepted(six, value)) << value;
  }
  for (const char* value :
       {"2001:db8::8", "2001:db8::/129", "2001:db9::/32", "0.0.0.0/0", "[2001:db8::7]:80"}) {
    EXPECT_FALSE(isExcepted(six, value)) << value;
  }
}

}  // namespace
