#include "domain/canonical_url.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using domain::canonicalUrl;

struct Row {
  std::string given;
  std::optional<std::string> cleaned;
};

void expectRows(const std::vector<Row>& rows) {
  for (const auto& [given, cleaned] : rows) EXPECT_EQ(canonicalUrl(given), cleaned) << given;
}

TEST(CanonicalUrl, LosesPathAndQueryOnlyWhenTheyAreEncrypted) {
  expectRows({{"https://h.example/secret?token=1#part", "https://h.example/"},
              {"wss://h.example/secret?token=1", "wss://h.example/"},
              {"https://h.example", "https://h.example/"},
              {"https://h.example?q=1", "https://h.example/"},
              {"http://h.example/a/b?c=d", "http://h.example/a/b?c=d"},
              {"ws://h.example/a?b", "ws://h.example/a?b"},
              {"ftp://h.example/a/b;type=i", "ftp://h.example/a/b;type=i"},
              {"foo://h.example/x?y", "foo://h.example/x?y"}});
}

TEST(CanonicalUrl, LosesUserPasswordAndFragmentOfEveryScheme) {
  expectRows({{"http://user:pass@h/x#frag", "http://h/x"},
              {"http://user@h/", "http://h/"},
              {"https://user:pass@h/", "https://h/"},
              {"ftp://user:pass@h/x", "ftp://h/x"},
              {"ws://user:pass@h/x", "ws://h/x"},
              {"foo://user:pass@h/x#f", "foo://h/x"},
              {"imap://user;AUTH=plain:pass@h/", "imap://h/"},
              {"http://h/x?a=b#c?d", "http://h/x?a=b"},
              {"http://h/#", "http://h/"}});
}

TEST(CanonicalUrl, KeepsAQueryThatIsEmpty) {
  expectRows({{"http://h/p?", "http://h/p?"},
              {"http://H?", "http://h/?"},
              {"http://user@h:80/p?#frag?", "http://h/p?"},
              {"ws://h/?", "ws://h/?"},
              {"foo://h/x?", "foo://h/x?"},
              {"http://h/p??", "http://h/p??"},
              {"http://h/p#?", "http://h/p"},
              {"https://h/p?", "https://h/"},
              {"wss://h?", "wss://h/"}});
}

TEST(CanonicalUrl, LowersSchemeAndHostAndNothingElse) {
  expectRows({{"HTTP://ExAmple.COM/PaTh?Query", "http://example.com/PaTh?Query"},
              {"HTTP://[FE80::A]/", "http://[fe80::a]/"},
              {"http://[FE80::1%25Eth0]/", "http://[fe80::1%25Eth0]/"},
              {"http://[fe80::1%25Eth0]/", "http://[fe80::1%25Eth0]/"},
              {"FOO://HOST/X", "foo://host/X"},
              {"http://M\xc3\x9cNCHEN.de/", "http://m\xc3\x9cnchen.de/"}});
}

TEST(CanonicalUrl, DropsOnlyTheDefaultPortOfTheScheme) {
  expectRows({{"http://h:80/", "http://h/"},
              {"https://h:443/", "https://h/"},
              {"ws://h:80/", "ws://h/"},
              {"wss://h:443/", "wss://h/"},
              {"ftp://h:21/", "ftp://h/"},
              {"http://h:443/", "http://h:443/"},
              {"https://h:80/", "https://h:80/"},
              {"ws://h:81/", "ws://h:81/"},
              {"foo://h:80/", "foo://h:80/"},
              {"https://[::1]:443/", "https://[::1]/"},
              {"http://h:/", "http://h/"}});
}

TEST(CanonicalUrl, KeepsThePathAsItIs) {
  expectRows({{"http://h/a/../b/./c", "http://h/a/../b/./c"},
              {"http://h/%41%2f", "http://h/%41%2f"},
              {"http://h/a b?c d", "http://h/a b?c d"},
              {"http://h?q", "http://h/?q"}});
}

TEST(CanonicalUrl, IsPassedAsItIsWithoutASchemeSeparator) {
  expectRows({{"", ""},
              {"h.example", "h.example"},
              {"User:Pass@H:80/x#f", "User:Pass@H:80/x#f"},
              {"HTTP:/H/", "HTTP:/H/"}});
}

TEST(CanonicalUrl, KeepsTheSlashOfAFileUrlWithoutAPath) {
  expectRows({{"file:///", "file:///"},
              {"FILE:///#f", "file:///"},
              {"file:///a/B", "file:///a/B"},
              {"file:///a?x", "file:///a?x"},
              {"file:///?x#f", "file:///?x"},
              {"file:///a?", "file:///a?"},
              {"file://localhost/a", "file:///a"},
              {"file://u:p@h/x", "file:///"}});
}

TEST(CanonicalUrl, ShowsAnAddressBehindPercentSignsAsOne) {
  expectRows({{"http://%39/", "http://0.0.0.9/"},
              {"http://%2539/", "http://%2539/"},
              {"HTTP://%31%30.1/%2e%39", "http://10.0.0.1/%2e%39"}});
}

TEST(CanonicalUrl, ShowsItsSchemeAloneWhenItIsNoUrl) {
  expectRows({{"http://a b/", "http:///"},
              {"HTTPS://u:p@a b/secret", "https:///"},
              {"http://", "http:///"},
              {"http://:80/", "http:///"},
              {"svn+ssh://u:p@/x", "svn+ssh:///"},
              {"http://h:99999/", "http:///"},
              {"http://u@h@i/", "http:///"}});
}

TEST(CanonicalUrl, IsPassedAsItIsWithoutAValidScheme) {
  for (const char* text : {"://", "://h", "1://h/", "1:/1:///", "a b://H/#x", "\xc3\xa4://h/",
                           "user:pass@h/?x=http://y", "http:/me:pw@h/x://y"}) {
    EXPECT_EQ(canonicalUrl(text), text);
  }
}

TEST(CanonicalUrl, TakesANameThatBeginsLikeAnAddressForAName) {
  expectRows({{"http://10.0.0.1.nip.example:80/x", "http://10.0.0.1.nip.example/x"},
              {"http://1.2.3.4.5/", "http://1.2.3.4.5/"},
              {"http://[::1]x/", "http:///"},
              {"http://h:-1/", "http:///"},
              {"http://h:8x/", "http:///"}});
}

TEST(CanonicalUrl, WritesAddressesInOneForm) {
  expectRows({{"http://127.1/", "http://127.0.0.1/"},
              {"http://0x7F.0.0.1/", "http://127.0.0.1/"},
              {"http://017700000001/", "http://127.0.0.1/"},
              {"http://08.1/", "http://08.1/"},
              {"http://4294967296/", "http://4294967296/"},
              {"http://[0:0:0:0:0:0:0:1]/", "http://[::1]/"},
              {"http://[::ffff:7f00:1]/", "http://[::ffff:127.0.0.1]/"},
              {"http://[2001:DB8::0:1]:080/", "http://[2001:db8::1]/"},
              {"http://[1::2::3]/", "http:///"},
              {"http://[v1.a]/", "http:///"}});
}

TEST(CanonicalUrl, LosesAPasswordWithAnyCharacter) {
  expectRows({{"http://me:p^w|{}\\ \"@h/x", "http://h/x"},
              {"http://me:%zz@h/x", "http://h/x"},
              {"http://me:p\xc3\xa4ss@h/x", "http://h/x"},
              {"http://me:p\x01@h/x", "http:///"},
              {"http://me:p/w@h/x", "http:///"}});
}

TEST(CanonicalUrl, UndoesPercentSignsOfAHost) {
  expectRows({{"http://%41b/", "http://ab/"},
              {"http://b%C3%BCcher.example/",
               "http://b\xc3\xbc"
               "cher.example/"},
              {"http://%20/", "http:///"},
              {"http://a%2fb/", "http:///"},
              {"http://h%zz/", "http:///"}});
}

TEST(CanonicalUrl, KeepsTheZoneOfAnAddressUpToTheNameOfAnInterface) {
  expectRows({{"http://[fe80::1%eth0]/", "http://[fe80::1%25eth0]/"},
              {"http://[fe80::1%25]/", "http://[fe80::1%2525]/"},
              {"http://[fe80::1%25abcdefghijklmno]/", "http://[fe80::1%25abcdefghijklmno]/"},
              {"http://[fe80::1%25abcdefghijklmnop]/", "http:///"},
              {"http://[fe80::1%25a%20b]/", "http:///"}});
}

TEST(CanonicalUrl, IsTakenAt8KiBAndNotPastIt) {
  const std::string start = "http://h/";
  const std::string longest = start + std::string(8192 - start.size(), 'x');
  EXPECT_EQ(canonicalUrl(longest), longest);
  EXPECT_EQ(canonicalUrl(longest + "x"), std::nullopt);
  EXPECT_EQ(canonicalUrl(std::string(8192, 'x')), std::string(8192, 'x'));
  EXPECT_EQ(canonicalUrl(std::string(8193, 'x')), std::nullopt);
}

TEST(CanonicalUrl, IsNothingWhenCleaningMakesItLongerThan8KiB) {
  // The missing path becomes "/".
  const std::string start = "http://h?";
  EXPECT_EQ(canonicalUrl(start + std::string(8192 - start.size(), 'x')), std::nullopt);
}

}  // namespace
