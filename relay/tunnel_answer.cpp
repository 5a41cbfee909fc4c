#include "relay/tunnel_answer.h"

#include <algorithm>

#include "base/ascii.h"
#include "relay/http_head.h"

namespace relay {

namespace {

/// Closes a stream at its deadline.
class Deadline : public Watched {
 public:
  Deadline(Sweeper& sweeper, Stream& stream, Clock::time_point end) : mStream(stream) {
    expireAt(end);
    sweeper.add(*this);
  }
  void expire() override {
    expireNever();
    mStream.close();
    mIsOver = true;
  }
  bool isOver() const { return mIsOver; }

 private:
  Stream& mStream;
  bool mIsOver = false;
};

/// Reads to the end of the answer's head. @return the answer's status; 0 if there is no valid head.
/// `in` has the bytes after the head; without a valid head, it has all the bytes that were read
Task<unsigned> statusOf(Stream& stream, std::string& in) {
  while (true) {
    const auto answer = readTunnelAnswer(in);
    if (answer.length != 0 && answer.status == 0) co_return 0;
    if (answer.length != 0) {
      in.erase(0, answer.length);
      const bool isInterim = answer.status / 100 == 1;
      if (!isInterim) co_return answer.status;
      continue;
    }
    if (in.size() >= kMaxHeadBytes) co_return 0;
    auto& buffer = sharedBuffer();
    const auto got = stream.tryRead(buffer.data(), buffer.size());
    if (got > 0) {
      in.append(buffer.data(), static_cast<std::size_t>(got));
    } else if (got != Stream::kAgain || !co_await stream.waitRead()) {
      co_return 0;
    }
  }
}

}  // namespace

TunnelAnswer readTunnelAnswer(std::string_view bytes) {
  TunnelAnswer answer;
  const auto ended = [&](std::string_view mark) {
    const auto at = bytes.find(mark);
    return at == std::string_view::npos ? bytes.size() + 1 : at + mark.size();
  };
  const auto length = std::min(ended("\n\r\n"), ended("\n\n"));
  if (length > bytes.size()) return answer;
  answer.length = length;
  // "HTTP/1.1 200"
  const auto line = bytes.substr(0, length);
  const auto digits = line.substr(std::min<std::size_t>(9, length), 3);
  const bool isHttp = line.starts_with("HTTP/1.") && line.substr(8, 1) == " ";
  if (!isHttp || !std::all_of(digits.begin(), digits.end(), base::isDigit)) return answer;
  for (const char digit : digits) {
    answer.status = answer.status * 10 + static_cast<unsigned>(digit - '0');
  }
  return answer;
}

Task<ThroughProxy> askForTunnel(Sweeper& sweeper, Stream& stream, const Destination& destination,
                                const std::string& via, Clock::time_point end) {
  const std::string to = destination.text();
  const std::string head =
      "CONNECT " + to + " HTTP/1.1\r\nHost: " + to + "\r\nVia: 1.1 " + via + "\r\n\r\n";
  const Deadline deadline(sweeper, stream, end);
  ThroughProxy through;
  if (co_await stream.write(head)) through.status = co_await statusOf(stream, through.early);
  if (deadline.isOver()) {
    through.result = ProxyResult::kNoAnswer;
    through.problem = "no answer to CONNECT within the time limit";
  } else if (through.status == 0 && through.early.empty()) {
    through.result = ProxyResult::kNoAnswer;
    through.problem = "the connection ended without an answer to CONNECT";
  } else if (through.status == 0) {
    through.problem = "the answer to CONNECT is not HTTP";
  } else if (through.status / 100 == 2) {
    through.result = ProxyResult::kConnected;
    through.stream.emplace(std::move(stream));
  } else {
    through.problem = "CONNECT was refused, response " + std::to_string(through.status);
    const bool isGateway = through.status >= 502 && through.status <= 504;
    through.result = isGateway ? ProxyResult::kDestinationFailed : ProxyResult::kRefused;
  }
  co_return through;
}

}  // namespace relay
