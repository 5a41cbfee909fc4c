#include "client/library/asked_url.h"

#include <gtest/gtest.h>

namespace {

using client::askedUrl;

TEST(AskedUrl, IsTheCanonicalUrl) {
  EXPECT_EQ(askedUrl("HTTP://me:pw@WWW.example?x"), "http://www.example/?x");
  EXPECT_EQ(askedUrl("https://www.example/@name?a@b"), "https://www.example/");
  EXPECT_EQ(askedUrl("http://www.example/@name"), "http://www.example/@name");
  EXPECT_EQ(askedUrl("no scheme://x"), std::nullopt);
}

TEST(AskedUrl, HasNoPasswordOfATextWithoutAScheme) {
  EXPECT_EQ(askedUrl("www.example:80/path"), "www.example:80/path");
  EXPECT_EQ(askedUrl("me:pw@www.example/path"), "www.example/path");
  EXPECT_EQ(askedUrl("me:p@w@www.example"), "www.example");
  // The end of the password is not certain in these texts.
  for (const auto* const text :
       {"http:/me:pw@host/", "https:/me:pw@host", "//me:pw@host/", "me:pw/x@host/", "me:pw?x@host",
        "me:pw#x@host", "/me:pw@host", "me:pw@host/x@y"}) {
    EXPECT_EQ(askedUrl(text), std::nullopt) << text;
  }
}

}  // namespace
