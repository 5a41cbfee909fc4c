#include "relay/pages.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>

#include "base/ascii.h"
#include "base/paths.h"
#include "base/visible.h"
#include "relay/page_texts.h"
#include "relay/rewrite.h"

namespace relay {

namespace {

/// The relay asks the daemon about this URL to get the daemon's mode. A host with this name never
/// exists (RFC 6761).
constexpr char kModeUrl[] = "http://proxymanager-relay.invalid/";

/// Whether `text` is "localhost" or a loopback address, with any port.
bool isLoopbackHost(std::string_view text) {
  const auto host = readAuthority(text, 80);
  if (!host) return false;
  if (host->host == "localhost") return true;
  Protocol::endpoint address;
  return readAddress(host->host, 0, address) && isLoopback(address.data()) &&
         host->host != "0.0.0.0" && host->host != "::";
}

/// Whether a page of another site made the request.
bool isForeign(const Fields& fields) {
  const auto site = fields.find("Sec-Fetch-Site");
  if (!site.empty() && site != "none" && site != "same-origin") return true;
  if (!fields.has("Origin")) return false;
  constexpr std::string_view kScheme = "http://";
  const auto origin = fields.find("Origin");
  return !origin.starts_with(kScheme) ||
         !base::equalIgnoringCase(origin.substr(kScheme.size()), fields.find("Host"));
}

std::string response(std::string_view type, const std::string& body, bool hasBody) {
  std::string text = "HTTP/1.1 200 OK\r\nContent-Type: ";
  text.append(type).append("\r\nContent-Length: ").append(std::to_string(body.size()));
  text.append(
      "\r\nCache-Control: no-store\r\n"
      "Content-Security-Policy: default-src 'none'; style-src 'self'; form-action 'self'; "
      "base-uri 'none'; frame-ancestors 'none'\r\n"
      "X-Content-Type-Options: nosniff\r\nX-Frame-Options: DENY\r\n"
      "Referrer-Policy: no-referrer\r\nCross-Origin-Resource-Policy: same-origin\r\n\r\n");
  return hasBody ? text.append(body) : text;
}

std::chrono::seconds ageOf(std::int64_t time) {
  return std::chrono::seconds(std::max<std::int64_t>(std::time(nullptr) - time, 0));
}

/// Adds the source and the age of the script to the report.
void addScript(const std::optional<base::DaemonStatus>& reported, Report& report) {
  if (reported && reported->mode == report.mode) {
    report.source = base::visible(reported->result);
    if (reported->script != 0) report.scriptAge = ageOf(reported->script);
    return;
  }
  // Without such a report, the age of the script is the age of the daemon's script file.
  struct stat status {};
  if (lstat(base::kPacFile, &status) == 0 && S_ISREG(status.st_mode)) {
    report.scriptAge = ageOf(status.st_mtime);
  }
}

void addMode(const Answer& answer, const std::optional<base::DaemonStatus>& reported,
             Report& report) {
  if (answer.status != PROXYMANAGER_OK) {
    report.problem = proxymanager_status_text(answer.status);
    return;
  }
  report.mode = answer.mode;
  if (report.mode == "manual" && !answer.entries.empty()) report.source = answer.entries[0].name();
  if (report.mode == "pacurl" || report.mode == "wpad") addScript(reported, report);
}

void addState(Context& context, Report& report) {
  const auto now = Clock::now();
  for (const auto& [entry, penalty] : context.penalties.list(now)) {
    report.penalties.push_back(
        {entry, penalty.reason,
         std::chrono::duration_cast<std::chrono::seconds>(penalty.end - now)});
  }
  report.counters = context.counters;
  report.asked = context.questions.asked();
  report.waiting = context.questions.waiting();
}

void addWay(Context& context, Answer answer, Report& report) {
  context.penalties.order(answer.entries, {});
  for (const auto& entry : answer.entries) report.way.push_back(entry.name());
  if (report.way.empty()) {
    report.way.push_back(std::string("no answer: ") + proxymanager_status_text(answer.status));
  }
}

Task<std::string> reportPage(Context& context, std::string_view path, std::string_view query,
                             const Peer& peer, bool hasBody) {
  Report report;
  addState(context, report);
  // The page for monitoring does not ask the daemon, so it works even if the daemon does not
  // answer.
  if (path == "/metrics") {
    co_return response("application/openmetrics-text; version=1.0.0; charset=utf-8",
                       metricsOf(report), hasBody);
  }
  const auto mode = co_await context.questions.ask(kModeUrl, peer.user);
  const auto reported = co_await context.report.read();
  addMode(mode, reported, report);
  report.isUserKnown = peer.isKnown();
  if (peer.isKnown()) report.decisions = context.decisions.of(peer.user);
  if (path == "/status.json") co_return response("application/json", jsonOf(report), hasBody);
  report.askedUrl = base::visible(queryValue(query, "url").value_or(""));
  if (!report.askedUrl.empty()) {
    auto answer = co_await context.questions.ask(report.askedUrl, peer.user);
    addWay(context, std::move(answer), report);
  }
  co_return response("text/html; charset=utf-8", htmlOf(report), hasBody);
}

}  // namespace

Task<std::string> pageFor(Context& context, const RequestHead& request, const Peer& peer) {
  const bool hasBody = request.method != "HEAD";
  const auto host = request.fields.find("Host");
  if (!isLoopbackHost(host)) {
    co_return ownResponse(421, "this host is not served here\n", true, hasBody);
  }
  if (!peer.isLocal || isForeign(request.fields)) {
    co_return ownResponse(403, "pages are for this machine's own users\n", true, hasBody);
  }
  if (request.method != "GET" && request.method != "HEAD") {
    co_return ownResponse(405, "GET and HEAD alone\n", true, hasBody);
  }
  const auto mark = std::min(request.target.find('?'), request.target.size());
  const auto path = request.target.substr(0, mark);
  const auto query = request.target.substr(std::min(mark + 1, request.target.size()));
  if (path == "/style.css") co_return response("text/css; charset=utf-8", pageStyle(), hasBody);
  if (path == "/proxy.pac") {
    const auto place = readAuthority(host, 80);
    co_return response("application/x-ns-proxy-autoconfig", scriptFor(place->text()), hasBody);
  }
  if (path == "/" || path == "/metrics" || path == "/status.json") {
    co_return co_await reportPage(context, path, query, peer, hasBody);
  }
  co_return ownResponse(404, "no such page\n", true, hasBody);
}

}  // namespace relay
