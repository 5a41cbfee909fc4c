// Tests the relay's parser of HTTP/1. An accepted head has only one meaning. The message that the
// relay forwards is also accepted, with the same body. The input is a head with its empty line, and
// then a body.
#include <algorithm>
#include <string>

#include "relay/http_body.h"
#include "relay/http_head.h"
#include "relay/rewrite.h"
#include "relay/tunnel_answer.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace relay;

namespace {

/// Reads the body in one piece and byte by byte. Both results must be equal.
void checkBody(const Body& body, std::string_view bytes) {
  BodyReader whole(body);
  std::string out;
  const auto taken = whole.take(bytes, out);
  require(taken <= bytes.size(), "no more is taken than there is");
  BodyReader pieces(body);
  std::string same;
  for (std::size_t at = 0; at < bytes.size() && pieces.problem()[0] == '\0'; at++) {
    if (pieces.take(bytes.substr(at, 1), same) == 0) break;
  }
  require(whole.isComplete() == pieces.isComplete(), "pieces do not change where a body ends");
  if (!whole.isComplete()) return;
  require(out == same, "pieces do not change a body");
  BodyReader again(body);
  std::string twice;
  require(again.take(out, twice) == out.size() && again.isComplete() && twice == out,
          "a body that was written is read again");
}

void checkRequest(std::string_view head, std::string_view rest) {
  RequestHead request;
  if (readRequestHead(head, request).status != 0) return;
  require(head.find('\0') == head.npos, "no NUL");
  require(request.fields.count("Host") <= 1, "one Host");
  require(!(request.fields.has("Content-Length") && request.fields.has("Transfer-Encoding")),
          "one length");
  static const Destination kServer{"server.example", 80};
  RequestForm form;
  form.destination = &kServer;
  form.path = "/";
  form.via = "relay";
  const auto sent = requestFor(request, form);
  RequestHead again;
  // The relay may add fields such as Via. If a head has almost the maximum number of fields, the
  // forwarded head may have too many.
  if (request.fields.list.size() + 4 < kMaxFields) {
    require(readRequestHead(sent, again).status == 0, "what is sent on is accepted");
    require(again.body.kind == request.body.kind && again.body.length == request.body.length,
            "the body keeps its length");
    require(headLength(sent) == sent.size(), "one head");
  }
  checkBody(request.body, rest);
}

void checkResponse(std::string_view head, std::string_view rest) {
  ResponseHead response;
  if (readResponseHead(head, "GET", response).status != 0) return;
  ResponseForm form;
  form.via = "relay";
  const auto sent = responseFor(response, form);
  ResponseHead again;
  if (response.fields.list.size() + 4 < kMaxFields) {
    require(readResponseHead(sent, "GET", again).status == 0, "what is sent on is accepted");
    require(again.body.kind == response.body.kind && again.body.length == response.body.length,
            "the body keeps its length");
  }
  checkBody(response.body, rest);
}

void checkTunnelAnswer(std::string_view input) {
  const auto answer = readTunnelAnswer(input);
  require(answer.length <= input.size() && answer.status <= 999, "a head of what there is");
  require(answer.length != 0 || headLength(input) == 0, "a strict head is a head");
  if (answer.length == 0) return;
  require(readTunnelAnswer(input.substr(0, answer.length - 1)).length == 0, "no end before");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkTunnelAnswer(input);
  const auto length = headLength(input);
  if (length == 0) return 0;
  checkRequest(input.substr(0, length), input.substr(length));
  checkResponse(input.substr(0, length), input.substr(length));
  return 0;
}
