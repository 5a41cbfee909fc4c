#include "settings/source_choice.h"

#include <gtest/gtest.h>

using namespace settings;

namespace {

FileSettings settingsOf(const std::string& text) {
  const auto read = readSettings(text);
  EXPECT_TRUE(read.problems.empty());
  return read.settings;
}

const NetworkConfiguration& wpadNetwork() {
  static const NetworkConfiguration network = [] {
    PushedConfiguration pushed;
    pushed.method = PushedConfiguration::Method::kAuto;
    pushed.interface = "eth0";
    return translate(pushed);
  }();
  return network;
}

TEST(Choose, NothingAtAllIsOff) {
  const auto choice = choose({}, "", nullptr);
  EXPECT_EQ(choice.holder, Choice::Holder::kFallback);
  EXPECT_EQ(choice.configuration.mode, Mode::kOff);
}

TEST(Choose, AutoTakesTheFileBeforeTheNetworkBeforeTheFallback) {
  const auto file = settingsOf("mode = \"pacurl\"\npac-url = \"http://h/\"\nfallback = \"wpad\"\n");
  EXPECT_EQ(choose(file, "", &wpadNetwork()).holder, Choice::Holder::kFile);
  const auto noMode = settingsOf("fallback = \"wpad\"\n");
  EXPECT_EQ(choose(noMode, "", &wpadNetwork()).holder, Choice::Holder::kNetwork);
  const auto nobody = choose(noMode, "", nullptr);
  EXPECT_EQ(nobody.holder, Choice::Holder::kFallback);
  EXPECT_EQ(nobody.configuration.mode, Mode::kWpad);
}

TEST(Choose, SourceFileIgnoresTheNetwork) {
  const auto choice = choose(settingsOf("source = \"file\"\n"), "", &wpadNetwork());
  EXPECT_NE(choice.holder, Choice::Holder::kNetwork);
  EXPECT_EQ(choice.configuration.mode, Mode::kOff);
}

TEST(Choose, SourceNetworkIgnoresTheFilesMode) {
  const auto settings = settingsOf("source = \"network\"\nmode = \"off\"\n");
  EXPECT_EQ(choose(settings, "", &wpadNetwork()).holder, Choice::Holder::kNetwork);
  EXPECT_EQ(choose(settings, "", nullptr).configuration.mode, Mode::kOff);
}

TEST(Choose, TheFilesPasswordIsNotForANetworksProxy) {
  const auto settings = settingsOf("user = \"me\"\n");
  const auto choice = choose(settings, "secret", &wpadNetwork());
  EXPECT_TRUE(choice.configuration.user.empty());
  EXPECT_TRUE(choice.configuration.password.empty());
}

// The reason is logged, and is shown at a terminal.
TEST(Choose, TheReasonHasNoControlCharacterOfAnInterfacesName) {
  NetworkConfiguration network;
  network.interface = "e\x1b[2Jt";
  EXPECT_EQ(choose({}, "", &network).reason,
            "no file sets a mode; a network manager does, interface e\\x1b[2Jt");
}

TEST(Choose, AModeTakesItsOwnUrlAlone) {
  const auto settings = settingsOf(
      "mode = \"manual\"\nproxy-url = \"http://p:1\"\npac-url = \"http://h/\"\nuser = \"me\"\n");
  const auto configuration = choose(settings, "secret", nullptr).configuration;
  EXPECT_EQ(configuration.proxyUrl, "http://p:1");
  EXPECT_TRUE(configuration.pacUrl.empty());
  EXPECT_EQ(configuration.user, "me");
  EXPECT_EQ(configuration.password, "secret");
}

TEST(Choose, ModeOffHandsNoPasswordOver) {
  const auto settings = settingsOf("mode = \"off\"\nuser = \"me\"\n");
  EXPECT_EQ(choose(settings, "secret", nullptr).configuration, Configuration());
}

TEST(MissingKey, AModeWithoutItsUrlIsNamed) {
  EXPECT_NE(missingKey(settingsOf("mode = \"manual\"\n")), "");
  EXPECT_NE(missingKey(settingsOf("mode = \"pacurl\"\n")), "");
  EXPECT_EQ(missingKey(settingsOf("mode = \"wpad\"\n")), "");
}

}  // namespace
