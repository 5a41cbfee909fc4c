#include "settings/settings_text.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

using namespace settings;

namespace {

/// The one problem of `text`, as "line: text".
std::string problemOf(const std::string& text) {
  const auto read = readSettings(text);
  if (read.problems.size() != 1) return std::to_string(read.problems.size()) + " problems";
  return std::to_string(read.problems[0].line) + ": " + read.problems[0].text;
}

TEST(SettingsText, ReadsEveryKey) {
  const auto read = readSettings(R"(# a comment
source = "network"
mode = "manual"
proxy-url = "http://proxy.example:3128"
pac-url = "https://wpad.example/proxy.pac"
user = "müller"
password-file = "/etc/proxymanager/password"
fallback = "wpad"
refresh = "6h"
network-direct = "off"
find-proxy = "all"
)");
  EXPECT_TRUE(read.problems.empty());
  FileSettings wanted;
  wanted.source = Source::kNetwork;
  wanted.mode = Mode::kManual;
  wanted.proxyUrl = "http://proxy.example:3128";
  wanted.pacUrl = "https://wpad.example/proxy.pac";
  wanted.user = "müller";
  wanted.passwordFile = "/etc/proxymanager/password";
  wanted.fallback = Mode::kWpad;
  wanted.refresh = std::chrono::hours{6};
  wanted.networkDirectIsOff = true;
  wanted.findProxyAll = true;
  EXPECT_EQ(read.settings, wanted);
}

TEST(SettingsText, TheInstalledFileSetsNothingAndShowsEveryKeyButThePassword) {
  std::ifstream file(SETTINGS_EXAMPLE);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(readSettings(text).settings, FileSettings());
  const auto shown = readSettings(std::regex_replace(text, std::regex("\n#([a-z-]+ = )"), "\n$1"));
  EXPECT_TRUE(shown.problems.empty());
  const auto& all = shown.settings;
  EXPECT_TRUE(all.source && all.mode && all.proxyUrl && all.pacUrl && all.user);
  EXPECT_TRUE(all.passwordFile && all.passwordCredential && all.fallback && all.refresh);
  EXPECT_TRUE(all.networkDirectIsOff && all.findProxyAll);
  FileSettings taken;
  overlay(taken, all);
  EXPECT_EQ(taken, all);
}

TEST(SettingsText, AnEmptyTextSetsNothing) {
  EXPECT_EQ(readSettings("").settings, FileSettings{});
  EXPECT_TRUE(readSettings("").problems.empty());
}

TEST(SettingsText, NamesTheLineOfWhatItCannotUse) {
  EXPECT_EQ(problemOf("mode = \"off\"\nmod = \"off\"\n"), "2: mod is not a known key");
  EXPECT_EQ(problemOf("\n\nmode = \"of\"\n"),
            "3: mode must be one of \"off\", \"manual\", \"pacurl\", \"wpad\"");
  EXPECT_EQ(problemOf("mode = [1]\n"), "1: mode must be a text in double quotes");
  EXPECT_EQ(problemOf("pac-url = \"ftp://h/p\"\n"),
            "1: pac-url must begin with http:// or https://");
  EXPECT_EQ(problemOf("pac-url = \"http:///p\"\n"), "1: pac-url has no host");
  EXPECT_EQ(problemOf("password-file = \"secret\"\n"), "1: password-file must be an absolute path");
  EXPECT_EQ(problemOf("password-credential = \"../x\"\n"),
            "1: password-credential must be the name of a credential, without a slash");
  EXPECT_EQ(problemOf("user = \"a\\nb\"\n"), "1: user must be one line");
  EXPECT_EQ(problemOf("user = \"a\\uFFFE\"\n"),
            "1: user contains a code point that is not a character");
  EXPECT_EQ(problemOf("refresh = \"59s\"\n"),
            "1: refresh must be 0 or a time from 1m to 365d, such as \"6h\"");
}

TEST(SettingsText, ASyntaxErrorIsOneProblemWithItsLine) {
  const auto read = readSettings("mode = \"off\"\nproxy-url = http://unquoted\n");
  ASSERT_EQ(read.problems.size(), 1U);
  EXPECT_EQ(read.problems[0].line, 2U);
  EXPECT_EQ(read.settings, FileSettings{});
}

TEST(SettingsText, NoSyntaxErrorQuotesAPassword) {
  for (const char* line :
       {"password = geheim-7", "password = \"geheim-7", "password = falschgeheim",
        "password = infgeheim", "password = 'geh'eim7", "password: geheim-7", "geheim-7",
        "password = \"ge\\heim-7\"", "password = 2024geheim", "password = 0xgeheim"}) {
    EXPECT_EQ(problemOf(std::string("mode = \"off\"\n") + line + "\n"),
              "2: is not valid TOML: a line is key = \"value\", and a file sets each key once");
  }
}

TEST(SettingsText, ProblemsComeInTheOrderOfTheirLines) {
  const auto read = readSettings("zzz = \"1\"\nmode = \"wpad\"\naaa = \"1\"\n");
  ASSERT_EQ(read.problems.size(), 2U);
  EXPECT_EQ(read.problems[0].line, 1U);
  EXPECT_EQ(read.problems[1].line, 3U);
}

// The TOML library's tables of blanks have gaps at letters beyond ASCII. Without the other
// TOML_UNREACHABLE of settings_text.cpp, such a letter causes undefined behaviour, which sanitizers
// detect.
TEST(SettingsText, ALetterBeyondAsciiOutsideOfQuotesIsAProblemOfItsLine) {
  for (const char* letter :
       {"\u00A1", "\u00FC", "\u0335", "\u3001", "\u3042", "\uFE00", "\U0001F600"}) {
    for (const char* form :
         {"source = \"auto\"\nmode = %", "source = \"auto\"\n% = \"off\"",
          "source = \"auto\"\nmode % = \"off\"", "source = \"auto\"\nmode = \"off\" %"}) {
      std::string text = form;
      text.replace(text.find('%'), 1, letter);
      const auto read = readSettings(text);
      ASSERT_FALSE(read.problems.empty()) << text;
      EXPECT_EQ(read.problems[0].line, 2U) << text;
    }
  }
  EXPECT_TRUE(readSettings("user = \"J\u00FCrgen\" # \u00FC\n").problems.empty());
}

TEST(SettingsText, AGoodKeyBesideABadOneIsStillRead) {
  const auto read = readSettings("mode = \"wpad\"\nnonsense = 1\n");
  EXPECT_EQ(read.settings.mode, Mode::kWpad);
  EXPECT_EQ(read.problems.size(), 1U);
}

TEST(SettingsText, AValueAtTheLimitIsReadAndOnePastItIsNot) {
  const auto valueOf = [](std::size_t bytes) {
    return "user = \"" + std::string(bytes, 'u') + "\"\n";
  };
  EXPECT_TRUE(readSettings(valueOf(kMaxValueBytes)).problems.empty());
  EXPECT_EQ(problemOf(valueOf(kMaxValueBytes + 1)), "1: user is longer than 8192 bytes");
}

TEST(SettingsText, RefreshTimesAreReadWithTheirUnits) {
  EXPECT_EQ(parseRefresh("0"), std::chrono::seconds{0});
  EXPECT_EQ(parseRefresh("60s"), kMinRefresh);
  EXPECT_EQ(parseRefresh("90m"), std::chrono::minutes{90});
  EXPECT_EQ(parseRefresh("365d"), kMaxRefresh);
  for (const char* wrong : {"", "6", "h", "6 h", "-1h", "59s", "366d", "6hh", "99999999999d"}) {
    EXPECT_EQ(parseRefresh(wrong), std::nullopt) << wrong;
  }
}

TEST(SettingsText, ALaterFileReplacesSingleKeys) {
  FileSettings settings = readSettings("mode = \"pacurl\"\npac-url = \"http://a/\"\n").settings;
  overlay(settings, readSettings("pac-url = \"http://b/\"\n").settings);
  EXPECT_EQ(settings.mode, Mode::kPacUrl);
  EXPECT_EQ(settings.pacUrl, "http://b/");
}

TEST(PacUrlProblem, IsAPortThatIsNoNumber) {
  for (const char* url : {"http://u:ge/heim@h/p.pac", "http://u:ge#heim@h/", "http://u:ge?heim@h/",
                          "http://h:80x/", "http://u:p@h:x", "http://[::1]:x/"}) {
    EXPECT_NE(pacUrlProblem(url).find("has a port that is no number"), std::string::npos) << url;
  }
  for (const char* url : {"http://h", "http://h:/", "http://h:8080/p@q", "http://u:p@h:1/p.pac",
                          "http://[2001:db8::1]/", "https://u@[::1]:443/a:b"}) {
    EXPECT_EQ(pacUrlProblem(url), "") << url;
  }
}

TEST(WithoutCredentials, ShowsNoPartOfAPassword) {
  for (const auto& [url, shown] : std::vector<std::pair<std::string, std::string>>{
           {"http://u:geheim@h:1/p", "http://h:1/p"},
           {"http://u@h/p@q", "http://h/p@q"},
           {"u:geheim@h:1", "h:1"},
           {"http://u:ge/heim@h/p.pac", "http://u:***@h/p.pac"},
           {"http://u:ge#heim@h", "http://u:***@h"},
           {"http://u:ge?heim@h", "http://u:***@h"},
           {"http://u:ge@he/im@h", "http://u:***@h"},
           {"http:///u:geheim@h/p", "http:///h/p"},
           {"//u:geheim@h:1", "//h:1"},
           {"http://dom/user:geheim@h/p", "http://***@h/p"},
           {"[u:ge/heim@h:1", "[u:***@h:1"},
           {"http://h:8080/p", "http://h:8080/p"},
           {"http://[2001:db8::1]/p@q", "http://[2001:db8::1]/p@q"},
           {"http://h/p@q", "http://h/p@q"},
           {"http://", "http://"},
           {"", ""}}) {
    EXPECT_EQ(withoutCredentials(url), shown);
  }
}

TEST(SettingsText, ALaterPasswordReplacesOneOfAnotherKind) {
  FileSettings settings = readSettings("password = \"x\"\n").settings;
  overlay(settings, readSettings("password-file = \"/p\"\n").settings);
  EXPECT_EQ(settings.password, std::nullopt);
  EXPECT_EQ(settings.passwordFile, "/p");
}

}  // namespace
