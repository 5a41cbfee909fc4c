#include "platform/netservice/dhcp_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/own_root.h"

namespace fs = std::filesystem;

namespace {

constexpr char kFile[] = "/usr/local/lumad/dhcp.conf";

class Lease : public testing::Test {
 protected:
  void SetUp() override {
    enterOwnRoot();
    fs::create_directories("/usr/local/lumad");
    std::memset(&mInfo, 'x', sizeof mInfo);
  }
  static void write(const std::string& text) { std::ofstream(kFile, std::ios::binary) << text; }
  void expectEmpty() const {
    const DhcpInfo empty{};
    EXPECT_EQ(std::memcmp(&mInfo, &empty, sizeof empty), 0);
  }

  DhcpInfo mInfo;
};

TEST_F(Lease, IsEmptyWithoutAFile) {
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  expectEmpty();
  EXPECT_TRUE(logged(LOG_DEBUG, "netservice: no lease file /usr/local/lumad/dhcp.conf"));
  fs::remove("/usr/local/lumad");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
}

TEST_F(Lease, HasOption252AtItsOffset) {
  write("wpad='http://10.0.0.1/proxy.pac'\n");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  char record[1512];
  std::memcpy(record, &mInfo, sizeof record);
  EXPECT_STREQ(record + 1260, "http://10.0.0.1/proxy.pac");
  EXPECT_EQ(record[0], '\0');
  EXPECT_TRUE(logLines().empty());
}

TEST_F(Lease, IsReadAnewOnEveryCall) {
  write("wpad=http://a/\n");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  write("wpad=http://b/\n");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  EXPECT_STREQ(mInfo.option252, "http://b/");
}

TEST_F(Lease, HoldsAnOptionOf251Characters) {
  const std::string url = "http://a/" + std::string(251 - 9, 'p');
  write("wpad=" + url + "\n");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  EXPECT_STREQ(mInfo.option252, url.c_str());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(Lease, CutsAnOptionOf252CharactersAndSaysSo) {
  const std::string url = "http://a/" + std::string(252 - 9, 'p');
  write("wpad=" + url + "\n");
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  EXPECT_STREQ(mInfo.option252, url.substr(0, 251).c_str());
  EXPECT_TRUE(logged(LOG_WARNING, "netservice: option 252 of 252 characters is cut to 251"));
}

TEST_F(Lease, MayBe64KiBLong) {
  std::string text = "wpad=http://a/\n#";
  text.resize(64 * 1024, 'x');
  write(text);
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  EXPECT_STREQ(mInfo.option252, "http://a/");
}

TEST_F(Lease, IsUnreadableWithOneByteMore) {
  std::string text = "wpad=http://a/\n#";
  text.resize(64 * 1024 + 1, 'x');
  write(text);
  EXPECT_EQ(getdhcpinfo(&mInfo), EFBIG);
  expectEmpty();
  EXPECT_TRUE(logged(LOG_ERR, "netservice: /usr/local/lumad/dhcp.conf not read: File too large"));
}

TEST_F(Lease, IsUnreadableAsAFifo) {
  ASSERT_EQ(mkfifo(kFile, 0644), 0);
  EXPECT_EQ(getdhcpinfo(&mInfo), EINVAL);
  expectEmpty();
  EXPECT_TRUE(logged(LOG_ERR, "netservice: /usr/local/lumad/dhcp.conf not read: Invalid argument"));
}

// Only root writes to the folder of this file. A read-only system may have a link there to a file
// in another place.
TEST_F(Lease, IsReadThroughALink) {
  std::ofstream("/run/real") << "wpad=http://a/\n";
  fs::create_symlink("/run/real", kFile);
  EXPECT_EQ(getdhcpinfo(&mInfo), 0);
  EXPECT_STREQ(mInfo.option252, "http://a/");
}

TEST_F(Lease, IsUnreadableAsAFolder) {
  fs::create_directory(kFile);
  EXPECT_EQ(getdhcpinfo(&mInfo), EINVAL);
  expectEmpty();
}

}  // namespace
