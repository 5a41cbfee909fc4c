#include "relay/rewrite.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "base/ascii.h"

namespace relay {

namespace {

using base::equalIgnoringCase;

/// Fields that the relay does not copy: they concern only one connection, or the relay writes them
/// itself.
constexpr std::array<std::string_view, 10> kOurs = {
    "Connection", "Keep-Alive", "Proxy-Connection",  "Proxy-Authorization", "Proxy-Authenticate",
    "TE",         "Upgrade",    "Transfer-Encoding", "Content-Length",      "Via"};

bool isOurs(std::string_view name) {
  return std::any_of(kOurs.begin(), kOurs.end(),
                     [&](auto ours) { return equalIgnoringCase(ours, name); });
}

void add(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ").append(value).append("\r\n");
}

/// Copies all fields that the relay forwards unchanged.
void addFields(std::string& head, const Fields& fields) {
  const bool hasNamed = fields.has("Connection");
  for (const auto& field : fields.list) {
    if (isOurs(field.name)) continue;
    if (hasNamed && fields.hasWord("Connection", field.name)) continue;
    add(head, field.name, field.value);
  }
}

void addVia(std::string& head, const Fields& fields, bool isHttp11, std::string_view via) {
  std::string value;
  for (const auto& field : fields.list) {
    if (equalIgnoringCase(field.name, "Via")) value.append(field.value).append(", ");
  }
  add(head, "Via", value.append(isHttp11 ? "1.1 " : "1.0 ").append(via));
}

void addLength(std::string& head, const Body& body, bool isHttp11) {
  if (body.kind == BodyKind::kLength) add(head, "Content-Length", std::to_string(body.length));
  if (body.kind == BodyKind::kChunked && isHttp11) add(head, "Transfer-Encoding", "chunked");
}

/// The value of Max-Forwards that the relay sends. Empty if the field is not changed.
std::string maxForwardsFor(const RequestHead& request) {
  if (request.method != "TRACE" && request.method != "OPTIONS") return {};
  const auto value = request.fields.find("Max-Forwards");
  unsigned left = 0;
  const auto [rest, error] = std::from_chars(value.data(), value.data() + value.size(), left);
  const bool isNumber = error == std::errc() && rest == value.data() + value.size();
  return isNumber && left != 0 ? std::to_string(left - 1) : std::string();
}

}  // namespace

std::string requestFor(const RequestHead& request, const RequestForm& form) {
  const auto host = form.destination->hostField(80);
  std::string head;
  head.reserve(512);
  head.append(request.method).append(" ");
  if (form.isAbsolute) head.append("http://").append(host);
  if (form.path.empty() || form.path.front() == '?') head += '/';
  head.append(form.path).append(" HTTP/1.1\r\n");
  add(head, "Host", host);
  Fields fields;
  for (const auto& field : request.fields.list) {
    if (!equalIgnoringCase(field.name, "Host")) fields.list.push_back(field);
  }
  const std::string forwards = maxForwardsFor(request);
  for (auto& field : fields.list) {
    if (!forwards.empty() && equalIgnoringCase(field.name, "Max-Forwards")) field.value = forwards;
  }
  addFields(head, fields);
  addLength(head, request.body, true);
  if (form.expectsContinue && !fields.has("Expect")) add(head, "Expect", "100-continue");
  addVia(head, fields, request.isHttp11, form.via);
  if (form.isUpgrade) {
    add(head, "Upgrade", request.fields.find("Upgrade"));
    add(head, "Connection", "Upgrade");
  } else if (request.fields.hasWord("TE", "trailers")) {
    add(head, "TE", "trailers");
    add(head, "Connection", "TE");
  }
  if (!form.authorization.empty()) add(head, "Proxy-Authorization", form.authorization);
  return head.append("\r\n");
}

std::string responseFor(const ResponseHead& response, const ResponseForm& form) {
  std::string head;
  head.reserve(512);
  head.append("HTTP/1.1 ").append(std::to_string(response.status)).append(" ");
  head.append(response.reason).append("\r\n");
  addFields(head, response.fields);
  if (response.body.kind == BodyKind::kNone && response.status != 204 &&
      response.status / 100 != 1) {
    // A response to HEAD and a response with status 304 may have a Content-Length: the length that
    // the response to a GET would have.
    const auto length = response.fields.find("Content-Length");
    if (!length.empty()) add(head, "Content-Length", length);
  }
  addLength(head, response.body, form.isHttp11);
  addVia(head, response.fields, response.isHttp11, form.via);
  if (form.isUpgrade) {
    add(head, "Upgrade", response.fields.find("Upgrade"));
    add(head, "Connection", "Upgrade");
  } else if (response.status / 100 != 1) {
    if (!form.isKept) add(head, "Connection", "close");
    if (form.isKept && !form.isHttp11) add(head, "Connection", "keep-alive");
  }
  return head.append("\r\n");
}

bool wentThrough(const Fields& fields, std::string_view name) {
  return std::any_of(fields.list.begin(), fields.list.end(), [&](const Field& field) {
    return equalIgnoringCase(field.name, "Via") && field.value.find(name) != std::string_view::npos;
  });
}

bool keepsConnection(const Fields& fields, bool isHttp11) {
  if (fields.hasWord("Connection", "close")) return false;
  return isHttp11 || fields.hasWord("Connection", "keep-alive") ||
         fields.hasWord("Proxy-Connection", "keep-alive");
}

std::string ownResponse(unsigned status, std::string_view text, bool isKept, bool hasBody) {
  std::string response = "HTTP/1.1 " + std::to_string(status) + " ";
  response.append(reasonOf(status)).append("\r\n");
  add(response, "Content-Type", "text/plain; charset=utf-8");
  add(response, "Content-Length", std::to_string(text.size()));
  add(response, "Cache-Control", "no-store");
  if (!isKept) add(response, "Connection", "close");
  response.append("\r\n");
  return hasBody ? response.append(text) : response;
}

std::string_view reasonOf(unsigned status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 408:
      return "Request Timeout";
    case 421:
      return "Misdirected Request";
    case 431:
      return "Request Header Fields Too Large";
    case 501:
      return "Not Implemented";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    case 505:
      return "HTTP Version Not Supported";
    case 508:
      return "Loop Detected";
    default:
      return "Error";
  }
}

}  // namespace relay
