#include "tests/unit/engine/dns_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

namespace {

constexpr std::uint16_t kTypeA = 1;
constexpr std::size_t kHeader = 12;
constexpr int kPollMs = 20;

struct Question {
  std::string name;
  std::uint16_t type = 0;
  std::size_t end = 0;  ///< offset after the question
};

std::optional<Question> parse(const std::string& packet) {
  Question question;
  std::size_t at = kHeader;
  while (at < packet.size() && packet[at] != 0) {
    const auto length = static_cast<std::size_t>(packet[at]);
    if (length > 63 || at + 1 + length > packet.size()) return std::nullopt;
    if (!question.name.empty()) question.name += '.';
    question.name += packet.substr(at + 1, length);
    at += length + 1;
  }
  if (at + 5 > packet.size()) return std::nullopt;
  question.type = static_cast<std::uint16_t>(static_cast<unsigned char>(packet[at + 1]) << 8U |
                                             static_cast<unsigned char>(packet[at + 2]));
  question.end = at + 5;
  return question;
}

void append16(std::string& bytes, unsigned value) {
  bytes += static_cast<char>(value >> 8U & 0xFFU);
  bytes += static_cast<char>(value & 0xFFU);
}

/// Returns a DNS record with `address` for the name in the question, or an empty text if `address`
/// does not have the family of `type`.
std::string record(const std::string& address, std::uint16_t type, std::uint32_t lifetime) {
  char binary[sizeof(in6_addr)];
  const int family = type == kTypeA ? AF_INET : AF_INET6;
  if (inet_pton(family, address.c_str(), binary) != 1) return {};
  const std::size_t length = type == kTypeA ? 4 : 16;
  std::string bytes = "\xc0\x0c";
  append16(bytes, type);
  append16(bytes, 1);
  append16(bytes, lifetime >> 16U);
  append16(bytes, lifetime & 0xFFFFU);
  append16(bytes, static_cast<unsigned>(length));
  return bytes.append(binary, length);
}

}  // namespace

DnsServer::DnsServer(std::map<std::string, DnsName> names, const std::string& address,
                     std::uint16_t port)
    : mNames(std::move(names)), mHost(address) {
  mSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &own.sin_addr);
  socklen_t size = sizeof own;
  auto* const generic = reinterpret_cast<sockaddr*>(&own);
  if (bind(mSocket, generic, size) != 0 || getsockname(mSocket, generic, &size) != 0) {
    std::perror("DNS server");
    std::abort();
  }
  mPort = ntohs(own.sin_port);
  mThread = std::thread([this] { serve(); });
}

DnsServer::~DnsServer() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
    mStopped.notify_all();
  }
  mThread.join();
  close(mSocket);
}

std::string DnsServer::address() const {
  return mHost + ":" + std::to_string(mPort);
}

int DnsServer::questions(const std::string& name) const {
  const std::lock_guard lock(mMutex);
  const auto found = mQuestions.find(name);
  return found == mQuestions.end() ? 0 : found->second;
}

void DnsServer::serve() {
  for (;;) {
    {
      const std::lock_guard lock(mMutex);
      if (mStop) return;
    }
    pollfd entry{mSocket, POLLIN, 0};
    if (poll(&entry, 1, kPollMs) <= 0) continue;
    char buffer[1024];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    auto* const generic = reinterpret_cast<sockaddr*>(&from);
    const ssize_t length = recvfrom(mSocket, buffer, sizeof buffer, 0, generic, &size);
    if (length <= 0) continue;
    const auto answer = answerTo(std::string(buffer, static_cast<std::size_t>(length)));
    if (!answer.empty()) sendto(mSocket, answer.data(), answer.size(), 0, generic, size);
  }
}

std::string DnsServer::answerTo(const std::string& packet) {
  const auto question = parse(packet);
  if (!question) return {};
  const auto found = mNames.find(question->name);
  const DnsName name = found == mNames.end() ? DnsName{} : found->second;
  {
    std::unique_lock lock(mMutex);
    ++mQuestions[question->name];
    if (mStopped.wait_for(lock, name.delay, [this] { return mStop; })) return {};
  }
  if (name.silent || (name.silentForIpv4 && question->type == kTypeA)) return {};
  std::string records;
  unsigned count = 0;
  for (const auto& address : name.addresses) {
    const auto one = record(address, question->type, name.lifetime);
    records += one;
    count += one.empty() ? 0U : 1U;
  }
  std::string answer = packet.substr(0, 2);
  append16(answer, 0x8180U | (name.addresses.empty() ? 3U : 0U));  // 3: no such name
  append16(answer, 1);
  append16(answer, count);
  append16(answer, 0);
  append16(answer, 0);
  return answer + packet.substr(kHeader, question->end - kHeader) + records;
}
