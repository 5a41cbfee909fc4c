#include "settings/script_server.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>
#include <vector>

using namespace settings;

namespace {

constexpr std::size_t kLongScript = 512'000;

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

  /// A connection for tests that write and read the bytes themselves.
  base::UniqueFd connectTo(const std::string& url) {
    const auto colon = url.rfind(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(url.substr(colon + 1))));
    base::UniqueFd opened(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(opened.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return opened;
  }
  static void write(const base::UniqueFd& peer, const std::string& text) {
    EXPECT_EQ(send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  /// Reads all bytes until the server closes the connection, or until no more bytes arrive.
  std::string readAll(const base::UniqueFd& peer) {
    std::string text;
    char bytes[16384];
    for (int turns = 0; turns < 100'000; turns++) {
      sd_event_run(mEvent.get(), 1000);
      const ssize_t length = recv(peer.get(), bytes, sizeof bytes, MSG_DONTWAIT);
      if (length == 0) return text;
      if (length > 0) text.append(bytes, static_cast<std::size_t>(length));
      if (length < 0 && errno != EAGAIN) return text + "(reset)";
    }
    return text + "(open)";
  }
  std::string ask(const std::string& url, const std::string& request) {
    const auto peer = connectTo(url);
    write(peer, request);
    return readAll(peer);
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
  EXPECT_EQ(fetch(url, "DELETE").status, 400);
}

TEST_F(ScriptServerTest, FollowsNoLinkInItsFolder) {
  const std::string url = mServer->publish("a");
  const std::string link = "0123456789abcdef.pac";
  ASSERT_EQ(symlink("/etc/passwd", (mFolder + "/" + link).c_str()), 0);
  EXPECT_EQ(fetch(url.substr(0, url.rfind('/') + 1) + link).status, 404);
}

TEST_F(ScriptServerTest, AFifoInItsFolderIsNoScript) {
  const std::string url = mServer->publish("a");
  const std::string name = "0123456789abcdef.pac";
  ASSERT_EQ(mkfifo((mFolder + "/" + name).c_str(), 0644), 0);
  EXPECT_EQ(fetch(url.substr(0, url.rfind('/') + 1) + name).status, 404);
}

TEST_F(ScriptServerTest, ASocketThatBlocksIsMadeOneThatDoesNot) {
  base::UniqueFd listening = listenOnLoopback(0);
  ASSERT_EQ(fcntl(listening.get(), F_SETFL, 0), 0);
  const base::UniqueFd same(dup(listening.get()));
  mServer = std::make_unique<ScriptServer>(mEvent.get(), std::move(listening), mFolder);
  EXPECT_NE(fcntl(same.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ScriptServerTest, ASocketThatListensForTheNetworkIsRefused) {
  base::UniqueFd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(listen(listening.get(), 1), 0);
  EXPECT_THROW(ScriptServer(mEvent.get(), std::move(listening), mFolder), std::system_error);
}

TEST_F(ScriptServerTest, WithdrawsItsScripts) {
  const std::string url = mServer->publish("a");
  mServer->withdraw();
  EXPECT_EQ(fetch(url).status, 404);
}

TEST_F(ScriptServerTest, AHeadRequestGetsTheLengthAndNoBody) {
  const std::string url = mServer->publish("var a = 1;");
  const std::string answer = ask(url, "HEAD /" + scriptName("var a = 1;") + " HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_NE(answer.find("\r\nContent-Length: 10\r\n"), std::string::npos) << answer;
  EXPECT_TRUE(answer.ends_with("\r\n\r\n")) << answer;
}

TEST_F(ScriptServerTest, ARequestThatIsNoneIsRefused) {
  const std::string url = mServer->publish("a");
  for (const char* wrong : {"\r\n\r\n", "GET\r\n\r\n", "GET /x\r\n\r\n", "GET /x HTTP/2\r\n\r\n",
                            "get /x HTTP/1.1\r\n\r\n", "\x16\x03\x01\r\n\r\n"}) {
    EXPECT_TRUE(ask(url, wrong).starts_with("HTTP/1.1 400 ")) << wrong;
  }
}

TEST_F(ScriptServerTest, ARequestMayComeInPieces) {
  const std::string url = mServer->publish("a");
  const auto peer = connectTo(url);
  for (const char c : "GET /" + scriptName("a") + " HTTP/1.1\r\nHost: x\r\n\r\n") {
    write(peer, {c});
    for (int turns = 0; turns < 3; turns++) sd_event_run(mEvent.get(), 0);
  }
  EXPECT_TRUE(readAll(peer).ends_with("\r\n\r\na"));
}

TEST_F(ScriptServerTest, AHeadAtTheLimitIsReadAndOnePastItIsNot) {
  const std::string url = mServer->publish("a");
  const std::string begin = "GET /" + scriptName("a") + " HTTP/1.1\r\nX: ";
  const std::string longest(kMaxRequestBytes - begin.size() - 4, 'x');
  EXPECT_TRUE(ask(url, begin + longest + "\r\n\r\n").ends_with("\r\n\r\na"));
  EXPECT_TRUE(ask(url, begin + longest + "x\r\n\r\n").starts_with("HTTP/1.1 431 "));
}

TEST_F(ScriptServerTest, ALongScriptArrivesWholeAtAReaderThatIsSlow) {
  const std::string script(kLongScript, 'x');
  // The socket's send buffer is made so small that the script does not fit in it.
  base::UniqueFd listening = listenOnLoopback(0);
  const int small = 4096;
  ASSERT_EQ(setsockopt(listening.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  mServer = std::make_unique<ScriptServer>(mEvent.get(), std::move(listening), mFolder);
  const auto peer = connectTo(mServer->publish(script));
  write(peer, "GET /" + scriptName(script) + " HTTP/1.1\r\n\r\n");
  const std::string answer = readAll(peer);
  EXPECT_EQ(answer.size() - (answer.find("\r\n\r\n") + 4), script.size());
  EXPECT_TRUE(answer.ends_with('x'));
}

TEST_F(ScriptServerTest, APeerThatGoesInTheMiddleOfTheAnswerHarmsNothing) {
  const std::string script(kLongScript, 'x');
  const std::string url = mServer->publish(script);
  for (int round = 0; round < 10; round++) {
    const auto peer = connectTo(url);
    write(peer, "GET /" + scriptName(script) + " HTTP/1.1\r\n\r\n");
    for (int turns = 0; turns < round; turns++) sd_event_run(mEvent.get(), 1000);
  }
  EXPECT_EQ(fetch(url).body.size(), script.size());
}

TEST_F(ScriptServerTest, AConnectionPastTheLimitEndsTheOldestAndIsServed) {
  const std::string url = mServer->publish("a");
  const auto oldest = connectTo(url);
  std::vector<base::UniqueFd> silent;
  for (std::size_t i = 1; i < kMaxConnections; i++) silent.push_back(connectTo(url));
  for (std::size_t i = 0; i < 2 * kMaxConnections; i++) sd_event_run(mEvent.get(), 0);
  char byte = 0;
  EXPECT_EQ(recv(oldest.get(), &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(fetch(url).body, "a");
  EXPECT_EQ(recv(oldest.get(), &byte, 1, MSG_DONTWAIT), 0);
  EXPECT_EQ(recv(silent.front().get(), &byte, 1, MSG_DONTWAIT), -1);
}

TEST_F(ScriptServerTest, ASilentConnectionEndsAfterItsLimit) {
  const auto begin = std::chrono::steady_clock::now();
  const auto peer = connectTo(mServer->publish("a"));
  EXPECT_EQ(readAll(peer), "");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, kConnectionLimit);
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
