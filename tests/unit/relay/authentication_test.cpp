#include "relay/authentication.h"

#include <gtest/gtest.h>

using namespace relay;

namespace {

using Scheme = Challenge::Scheme;

const Credentials kMufasa{"Mufasa", "Circle of Life"};
constexpr char kNonce[] = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
constexpr char kClientNonce[] = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";

std::string challengeText(const std::string& algorithm) {
  return "Digest realm=\"http-auth@example.org\", qop=\"auth, auth-int\", algorithm=" + algorithm +
         ", nonce=\"" + kNonce + "\", opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"";
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The examples of RFC 7616, section 3.9.1.
TEST(Digest, GivesTheResponsesOfTheStandardsExamples) {
  const std::pair<const char*, const char*> kExamples[] = {
      {"MD5", "response=\"8ca523f5e9506fed4657c9700eebdbec\""},
      {"SHA-256", "response=\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1\""}};
  for (const auto& [algorithm, response] : kExamples) {
    const auto text = challengeText(algorithm);
    const auto challenge = readChallenges({text});
    const auto value =
        authorizationFor(challenge, kMufasa, "GET", "/dir/index.html", kClientNonce, 1);
    EXPECT_TRUE(has(value, response)) << value;
    EXPECT_TRUE(has(value, "nc=00000001")) << value;
    EXPECT_TRUE(has(value, "opaque=\"FQhe")) << value;
  }
}

// The example of RFC 2069, corrected by its erratum. It has no qop.
TEST(Digest, WithoutQopIsTheOlderOne) {
  const auto challenge = readChallenges(
      {"Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\""});
  const auto value =
      authorizationFor(challenge, {"Mufasa", "CircleOfLife"}, "GET", "/dir/index.html", "x", 1);
  EXPECT_TRUE(has(value, "response=\"1949323746fe6a43ef61f9606e7febea\"")) << value;
  EXPECT_FALSE(has(value, "qop")) << value;
}

// The example of RFC 7617, section 2.
TEST(Basic, GivesTheValueOfTheStandardsExample) {
  const auto challenge = readChallenges({"Basic realm=\"WallyWorld\""});
  EXPECT_EQ(authorizationFor(challenge, {"Aladdin", "open sesame"}, "GET", "/", "", 1),
            "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
}

TEST(Challenges, OfSeveralTheStrongestThatIsKnownIsTaken) {
  const auto sha = challengeText("SHA-256");
  const auto md5 = challengeText("MD5");
  const auto basicAndDigest = "Basic realm=x, " + md5;
  const auto unknown = challengeText("SHA-512-256");
  const auto session = challengeText("MD5-sess");
  EXPECT_EQ(readChallenges({"Negotiate, Basic realm=\"x\", NTLM"}).scheme, Scheme::kBasic);
  EXPECT_EQ(readChallenges({md5, sha}).scheme, Scheme::kDigestSha256);
  EXPECT_EQ(readChallenges({std::string_view(basicAndDigest)}).scheme, Scheme::kDigestMd5);
  EXPECT_EQ(readChallenges({std::string_view(unknown)}).scheme, Scheme::kNone);
  EXPECT_TRUE(readChallenges({std::string_view(session)}).isSession);
}

TEST(Challenges, ThatAreBrokenGiveNone) {
  for (const char* text : {"", ",,,", "Digest", "Digest realm=\"x", "Digest nonce=\"\\", "=", "\"",
                           "Digest realm=\"x\"", "Negotiate abc=="}) {
    EXPECT_EQ(readChallenges({text}).scheme, Scheme::kNone) << text;
  }
  const std::string fits = "Digest nonce=\"" + std::string(kMaxChallengeText, 'n') + "\"";
  const std::string tooLong = "Digest nonce=\"" + std::string(kMaxChallengeText + 1, 'n') + "\"";
  EXPECT_EQ(readChallenges({std::string_view(fits)}).scheme, Scheme::kDigestMd5);
  EXPECT_EQ(readChallenges({std::string_view(tooLong)}).scheme, Scheme::kNone);
}

}  // namespace
