// A name server for tests: real DNS over UDP on 127.0.0.1. It answers at once, late or never,
// depending on the name.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct DnsName {
  std::vector<std::string> addresses;  ///< IPv4 and IPv6; if empty, the name does not exist
  std::uint32_t lifetime = 60;         ///< seconds
  std::chrono::milliseconds delay{0};  ///< pause before an answer; other questions wait meanwhile
  bool silent = false;                 ///< never answers
  bool silentForIpv4 = false;          ///< never answers when asked for an IPv4 address
};

class DnsServer {
 public:
  /// Serves `names` until the object is destroyed. Other names do not exist. It has one thread,
  /// which blocks on the socket. The destructor shuts the socket down and joins the thread.
  explicit DnsServer(std::map<std::string, DnsName> names, const std::string& address = "127.0.0.1",
                     std::uint16_t port = 0);
  ~DnsServer();
  DnsServer(const DnsServer&) = delete;
  DnsServer& operator=(const DnsServer&) = delete;

  /// The address and port of the server, for example "127.0.0.1:5353".
  std::string address() const;

  /// The number of questions for `name` until now, of all types.
  int questions(const std::string& name) const;

 private:
  void serve();
  std::string answerTo(const std::string& question);

  std::map<std::string, DnsName> mNames;
  std::string mHost;
  int mSocket = -1;
  std::uint16_t mPort = 0;
  mutable std::mutex mMutex;
  std::condition_variable mStopped;
  bool mStop = false;
  std::map<std::string, int> mQuestions;
  std::thread mThread;
};
