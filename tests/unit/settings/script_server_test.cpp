#include "settings/script_server.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

using namespace settings;

namespace {

struct EventCloser {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};

std::size_t append(char* bytes, std::size_t, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(bytes, count);
  return count;
}

struct Fetched {
  long status = 0;
  std::string body;
};

class ScriptServerTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/script_server_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    mFolder = name;
    sd_event* event = nullptr;
    ASSERT_GE(sd_event_new(&event), 0);
    mEvent.reset(event);
    mServer = std::make_unique<ScriptServer>(event, listenOnLoopback(0), mFolder);
  }
  void TearDown() override {
    mServer.reset();
    std::filesystem::remove_all(mFolder);
  }

  /// Fetches on another thread while the loop runs here.
  Fetched fetch(const std::string& url, const char* method = "GET") {
    Fetched fetched;
    bool done = false;
    std::thread client([&] {
      CURL* curl = curl_easy_init();
      curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
      curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
      curl_easy_setopt(curl, CURLOPT_PROXY, "");
      curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
      curl_easy_setopt(curl, CURLOPT_WRITEDATA, &fetched.body);
      curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
      curl_easy_perform(curl);
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &fetched.status);
      curl_easy_cleanup(curl);
      __atomic_store_n(&done, true, __ATOMIC_SEQ_CST);
    });
    while (!__atomic_load_n(&done, __ATOMIC_SEQ_CST)) sd_event_run(mEvent.get(), 20'000);
    client.join();
    return fetched;
  }

  std::string mFolder;
  std::unique_ptr<sd_event, EventCloser> mEvent;
  std::unique_ptr<ScriptServer> mServer;
};

TEST_F(ScriptServerTest, ServesWhatIsPublished) {
  const std::string url = mServer->publish("var a = 1;");
  const Fetched fetched = fetch(url);
  EXPECT_EQ(fetched.status, 200);
  EXPECT_EQ(fetched.body, "var a = 1;");
}

TEST_F(ScriptServerTest, TheSameScriptHasTheSameUrlAndAnotherOneAnother) {
  const std::string url = mServer->publish("a");
  EXPECT_EQ(mServer->publish("a"), url);
  EXPECT_NE(mServer->publish("b"), url);
  EXPECT_EQ(fetch(url).status, 404);
}

TEST_F(ScriptServerTest, ServesAScriptThatAnEarlierRunHasKept) {
  const std::string url = mServer->publish("a");
  const std::string kept = url.substr(url.rfind('/') + 1);
  mServer = std::make_unique<ScriptServer>(mEvent.get(), listenOnLoopback(0), mFolder);
  const std::string newUrl = mServer->publish("b");
  std::filesystem::copy_file(mFolder + "/" + newUrl.substr(newUrl.rfind('/') + 1),
                             mFolder + "/" + kept);
  EXPECT_EQ(fetch(newUrl.substr(0, newUrl.rfind('/') + 1) + kept).body, "b");
}

TEST_F(ScriptServerTest, ServesNothingElse) {
  const std::string url = mServer->publish("a");
  const std::string base = url.substr(0, url.rfind('/') + 1);
  for (const char* path : {"", "../etc/passwd", "%2e%2e/etc/passwd", "0123456789abcdef.pac"}) {
    EXPECT_EQ(fetch(base + path).status, 404) << path;
  }
  EXPECT_EQ(fetch(url, "DELETE").status, 404);
}

TEST_F(ScriptServerTest, FollowsNoLinkInItsFolder) {
  const std::string url = mServer->publish("a");
  const std::string link = "0123456789abcdef.pac";
  ASSERT_EQ(symlink("/etc/passwd", (mFolder + "/" + link).c_str()), 0);
  EXPECT_EQ(fetch(url.substr(0, url.rfind('/') + 1) + link).status, 404);
}

TEST_F(ScriptServerTest, WithdrawsItsScripts) {
  const std::string url = mServer->publish("a");
  mServer->withdraw();
  EXPECT_EQ(fetch(url).status, 404);
}

// The published test vectors of 64-bit FNV-1a.
TEST(ScriptName, IsTheHashOfTheScript) {
  EXPECT_EQ(scriptName(""), "cbf29ce484222325.pac");
  EXPECT_EQ(scriptName("a"), "af63dc4c8601ec8c.pac");
  EXPECT_EQ(scriptName("foobar"), "85944171f73967e8.pac");
  EXPECT_TRUE(isScriptName(scriptName("x")));
  for (const char* wrong : {"", ".pac", "cbf29ce484222325", "CBF29CE484222325.pac",
                            "cbf29ce48422232.pac", "cbf29ce484222325.pac.new"}) {
    EXPECT_FALSE(isScriptName(wrong)) << wrong;
  }
}

}  // namespace
