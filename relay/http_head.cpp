#include "relay/http_head.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "base/ascii.h"

namespace relay {

namespace {

using base::equalIgnoringCase;

constexpr std::string_view kLineEnd = "\r\n";
constexpr HeadProblem kGood{};

constexpr bool isTokenByte(char c) {
  return base::isLetter(c) || base::isDigit(c) ||
         (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

/// Whether `text` may be the value of a field: it has no control character except the tab.
bool isValue(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return base::isControl(c) && c != '\t'; });
}

/// Whether `text` may be the target of a request: it is not empty and has no blank and no control
/// character.
bool isTarget(std::string_view text) {
  return !text.empty() && std::none_of(text.begin(), text.end(),
                                       [](char c) { return base::isControl(c) || c == ' '; });
}

/// Removes the next line from `text`. @return the line without its end; it may contain a single CR
/// or LF, which isValue() detects
std::string_view takeLine(std::string_view& text) {
  const auto end = text.find(kLineEnd);
  const auto line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + kLineEnd.size());
  return line;
}

HeadProblem readFields(std::string_view text, Fields& fields) {
  while (!text.empty()) {
    const auto line = takeLine(text);
    if (line.empty()) return text.empty() ? kGood : HeadProblem{400, "bytes after the head"};
    if (line.front() == ' ' || line.front() == '\t') return {400, "a folded line in the head"};
    if (fields.list.size() == kMaxFields) return {431, "too many fields in the head"};
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return {400, "a line of the head has no colon"};
    const auto name = line.substr(0, colon);
    const auto value = base::trimmed(line.substr(colon + 1));
    if (!isToken(name)) return {400, "a field's name is no token"};
    if (!isValue(value)) return {400, "a control character in a field's value"};
    fields.list.push_back({name, value});
  }
  return kGood;
}

bool readVersion(std::string_view text, bool& isHttp11) {
  isHttp11 = text == "HTTP/1.1";
  return isHttp11 || text == "HTTP/1.0";
}

/// Reads a whole number that consists only of digits.
bool readLength(std::string_view text, std::uint64_t& length) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  return !text.empty() && base::isDigit(text.front()) && error == std::errc() &&
         rest == text.data() + text.size() && length <= kMaxBodyBytes;
}

HeadProblem readRequestBody(RequestHead& request) {
  const auto& fields = request.fields;
  const auto lengths = fields.count("Content-Length");
  const auto codings = fields.count("Transfer-Encoding");
  if (lengths != 0 && codings != 0) return {400, "two lengths of one body"};
  if (lengths > 1 || codings > 1) return {400, "a length of the body stands twice"};
  if (codings == 1) {
    if (!request.isHttp11) return {400, "a chunked body in HTTP/1.0"};
    if (!equalIgnoringCase(fields.find("Transfer-Encoding"), "chunked")) {
      return {400, "an unknown transfer encoding"};
    }
    request.body.kind = BodyKind::kChunked;
  } else if (lengths == 1) {
    if (!readLength(fields.find("Content-Length"), request.body.length)) {
      return {400, "a Content-Length that is no number"};
    }
    request.body.kind = BodyKind::kLength;
  }
  return kGood;
}

/// Refuses a field Connection that is not valid or names one of kNeeded. The relay does not forward
/// the fields that Connection names, but a server needs the fields of kNeeded.
HeadProblem checkConnection(const Fields& fields) {
  static constexpr std::array<std::string_view, 5> kNeeded = {
      "Host", "Content-Length", "Transfer-Encoding", "Via", "Authorization"};
  for (const auto& field : fields.list) {
    if (!equalIgnoringCase(field.name, "Connection")) continue;
    const bool isBad = anyWord(field.value, [](std::string_view word) {
      return !isToken(word) || std::any_of(kNeeded.begin(), kNeeded.end(), [&](auto needed) {
        return equalIgnoringCase(word, needed);
      });
    });
    if (isBad) return {400, "Connection names a field that must stay"};
  }
  return kGood;
}

/// Reads Content-Length. Some servers send the same length twice, which is accepted. Two different
/// lengths are an attack or an error.
HeadProblem readResponseLength(const Fields& fields, Body& body) {
  bool isFirst = true;
  for (const auto& field : fields.list) {
    if (!equalIgnoringCase(field.name, "Content-Length")) continue;
    std::uint64_t length = 0;
    if (!readLength(field.value, length)) return {502, "a Content-Length that is no number"};
    if (!isFirst && length != body.length) return {502, "two lengths of one body"};
    body.length = length;
    body.kind = BodyKind::kLength;
    isFirst = false;
  }
  return kGood;
}

HeadProblem readResponseBody(std::string_view method, ResponseHead& response) {
  const auto& fields = response.fields;
  const bool isConnected = method == "CONNECT" && response.status / 100 == 2;
  if (response.status / 100 == 1 || response.status == 204 || response.status == 304 ||
      method == "HEAD" || isConnected) {
    return kGood;
  }
  const auto codings = fields.count("Transfer-Encoding");
  if (codings == 0) {
    response.body.kind = BodyKind::kUntilClose;
    return readResponseLength(fields, response.body);
  }
  const bool isChunked =
      codings == 1 && equalIgnoringCase(fields.find("Transfer-Encoding"), "chunked");
  if (!isChunked || !response.isHttp11) return {502, "an unknown transfer encoding"};
  response.body.kind = BodyKind::kChunked;
  response.isDoubtful = fields.has("Content-Length");
  return kGood;
}

}  // namespace

bool isToken(std::string_view name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), isTokenByte);
}

std::string_view Fields::find(std::string_view name) const {
  for (const auto& field : list) {
    if (equalIgnoringCase(field.name, name)) return field.value;
  }
  return {};
}

std::size_t Fields::count(std::string_view name) const {
  return static_cast<std::size_t>(std::count_if(list.begin(), list.end(), [&](const Field& field) {
    return equalIgnoringCase(field.name, name);
  }));
}

bool Fields::hasWord(std::string_view name, std::string_view word) const {
  return std::any_of(list.begin(), list.end(), [&](const Field& field) {
    return equalIgnoringCase(field.name, name) &&
           anyWord(field.value, [&](auto found) { return equalIgnoringCase(found, word); });
  });
}

std::size_t headLength(std::string_view bytes, std::size_t from) {
  const auto end = bytes.find("\r\n\r\n", from < 3 ? 0 : from - 3);
  return end == std::string_view::npos ? 0 : end + 4;
}

HeadProblem readRequestHead(std::string_view head, RequestHead& request) {
  auto line = takeLine(head);
  const auto first = line.find(' ');
  const auto last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return {400, "the request line is broken"};
  request.method = line.substr(0, first);
  request.target = line.substr(first + 1, last - first - 1);
  if (!isToken(request.method) || !isTarget(request.target)) {
    return {400, "the request line is broken"};
  }
  if (!readVersion(line.substr(last + 1), request.isHttp11)) return {505, "not HTTP/1.0 or 1.1"};
  if (const auto problem = readFields(head, request.fields); problem.status != 0) return problem;
  const auto hosts = request.fields.count("Host");
  if (hosts > 1 || (hosts == 0 && request.isHttp11)) return {400, "not one Host field"};
  if (const auto problem = checkConnection(request.fields); problem.status != 0) return problem;
  return readRequestBody(request);
}

HeadProblem readResponseHead(std::string_view head, std::string_view method,
                             ResponseHead& response) {
  auto line = takeLine(head);
  if (line.size() < 12 || line[8] != ' ' || !readVersion(line.substr(0, 8), response.isHttp11)) {
    return {502, "the answer is not HTTP/1.0 or 1.1"};
  }
  std::uint64_t status = 0;
  if (!readLength(line.substr(9, 3), status) || status < 100) return {502, "the status is broken"};
  response.status = static_cast<unsigned>(status);
  if (line.size() > 12) {
    if (line[12] != ' ' || !isValue(line)) return {502, "the status line is broken"};
    response.reason = line.substr(13);
  }
  if (const auto problem = readFields(head, response.fields); problem.status != 0) {
    return {502, problem.text};
  }
  return readResponseBody(method, response);
}

HeadProblem readTrailers(std::string_view lines, Fields& trailers) {
  if (const auto problem = readFields(lines, trailers); problem.status != 0) return problem;
  static constexpr std::array<std::string_view, 10> kOfTheHead = {
      "Host",          "Content-Length",      "Transfer-Encoding",  "Connection", "TE",
      "Authorization", "Proxy-Authorization", "Proxy-Authenticate", "Via",        "Upgrade"};
  for (const auto& trailer : trailers.list) {
    for (const auto name : kOfTheHead) {
      if (equalIgnoringCase(trailer.name, name)) return {400, "a trailer that belongs to the head"};
    }
  }
  return kGood;
}

}  // namespace relay
