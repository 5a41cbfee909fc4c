#include "client/ctl/commands/diagnose_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <memory>
#include <string>
#include <vector>

#include "base/ascii.h"
#include "client/ctl/commands/answer_options.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/answers.h"
#include "client/ctl/daemon/connection.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_parts.h"

namespace client {

namespace {

constexpr const char* kDiagnoseFooter =
    R"(Asks for the proxies of URL and tries each entry: an HTTP proxy with HEAD for
http and with CONNECT for https, other proxies only with a connection, DIRECT
with a connection to the server. It sends only the scheme, host and port of the
URL, and no credentials. An HTTP proxy works for http if its answer is below 400,
or 401, 404 or 405, which are a server's.

Exit status:
)";

/// The time limit for a connection, and the time limit for an answer: a proxy connects to the
/// server before it answers.
constexpr std::chrono::seconds kStepLimit{10};

struct DiagnoseArguments {
  std::string url;
  AnswerOptions answers;
  CallOptions call;
};

/// The server of the URL that the user gives.
struct Server {
  bool isEncrypted = false;
  std::string authority;  ///< host and port, as in the URL
  std::string host;
  std::uint16_t port = 0;
};

/// Throws the parser's error if `url` does not have a server that can be tried.
void checkServer(const std::string& url) {
  const auto canonical = canonicalOrGiven(url);
  const auto begin = authorityBegin(canonical);
  const auto scheme = begin == 0 ? "http" : schemeOf(canonical);
  if (scheme != "http" && scheme != "https" && scheme != "ws" && scheme != "wss") {
    throw CLI::ValidationError("URL", "only http, https, ws and wss can be tried");
  }
  const auto host = hostOf(canonical);
  if (host.empty() || host.find_first_of(base::kBlanks) != std::string::npos) {
    throw CLI::ValidationError("URL", "it has no valid host");
  }
  // Servers and proxies accept a host name only in its ASCII form (xn--).
  if (std::any_of(host.begin(), host.end(), [](char byte) { return (byte & 0x80) != 0; })) {
    throw CLI::ValidationError("URL", "its host is not ASCII; give it in its xn-- form");
  }
}

Server serverOf(const std::string& canonical) {
  Server server;
  const auto scheme = schemeOf(canonical);
  server.isEncrypted = scheme == "https" || scheme == "wss";
  const auto begin = authorityBegin(canonical);
  server.authority = canonical.substr(begin, canonical.find_first_of("/?#", begin) - begin);
  server.host = hostOf(canonical);
  server.port = server.isEncrypted ? 443 : 80;
  const auto colon = server.authority.rfind(':');
  if (colon != std::string::npos && server.authority.back() != ']') {
    const auto* const end = server.authority.data() + server.authority.size();
    std::from_chars(server.authority.data() + colon + 1, end, server.port);
  } else {
    server.authority += ':' + std::to_string(server.port);
  }
  return server;
}

/// The problem in the first line of an HTTP answer. Empty if the connection works.
std::string problemOf(const std::string& line, bool isTunnel) {
  int code = 0;
  const auto blank = line.find(' ');
  if (!line.starts_with("HTTP/") || blank == std::string::npos) return "it does not speak HTTP";
  std::from_chars(line.data() + blank + 1, line.data() + line.size(), code);
  const auto said = "it answers \"" + line.substr(blank + 1) + '"';
  if (code == 407) return said + ": it wants a user name and a password";
  if (isTunnel) return code >= 200 && code < 300 ? "" : said;
  // A proxy refuses with 400 or 403. The three statuses below come from the server and concern only
  // its page.
  const bool isServers = code == 401 || code == 404 || code == 405;
  const bool isFine = (code >= 200 && code < 400) || isServers;
  return isFine ? "" : said;
}

/// Tries to connect to `server` through `entry`. @return the problem, or an empty text
std::string tryEntry(const ProxyEntry& entry, const Server& server) {
  const bool isDirect = entry.kind == ProxyKind::kDirect;
  const auto made = isDirect ? connectTo(server.host, server.port, kStepLimit)
                             : connectTo(entry.host, entry.port, kStepLimit);
  if (!made.problem.empty()) return "no connection: " + made.problem;
  if (entry.kind != ProxyKind::kHttp) return {};
  const auto request = server.isEncrypted ? "CONNECT " + server.authority + " HTTP/1.1\r\n"
                                          : "HEAD http://" + server.authority + "/ HTTP/1.1\r\n";
  std::string problem;
  const auto line = firstLine(
      made.socket.get(), request + "Host: " + server.authority + "\r\nConnection: close\r\n\r\n",
      kStepLimit, problem);
  return problem.empty() ? problemOf(line, server.isEncrypted) : problem;
}

ExitStatus diagnose(const DiagnoseArguments& arguments) {
  const auto answer = Answers(arguments.call.limit, arguments.answers).ask(arguments.url);
  const auto server = serverOf(canonicalOrGiven(arguments.url));
  std::vector<Row> rows{{"mode", answer.mode}};
  bool works = false;
  for (const auto& entry : answer.entries) {
    const auto text = withoutPassword(entry.kind == ProxyKind::kDirect ? "DIRECT" : entry.text);
    const auto problem = entry.kind == ProxyKind::kUnusable ? "it is not the address of a proxy"
                                                            : tryEntry(entry, server);
    rows.push_back({"entry", text + (problem.empty() ? ": works" : ": " + problem),
                    problem.empty() ? Tone::kGood : Tone::kBad});
    works = works || problem.empty();
  }
  if (answer.entries.empty()) {
    rows.push_back(
        {"entry", "(no answer: the script has none, or there is no script)", Tone::kBad});
  }
  printBlock(withoutPassword(arguments.url), rows);
  return works ? kAnswered : kNoAnswer;
}

}  // namespace

void addDiagnoseCommand(CLI::App& program, Action& action) {
  auto* const command =
      program.add_subcommand("diagnose", "Tries each way that the daemon gives for a URL.");
  const auto arguments = std::make_shared<DiagnoseArguments>();
  command->add_option("URL", arguments->url, "What is to be reached")->required()->option_text(" ");
  addTimeout(*command, arguments->call, kAskLimit);
  command->add_flag("--ask-local", arguments->answers.askLocal,
                    "Ask about this machine, too: localhost,\n127.0.0.0/8, ::1 and the like");
  command->footer(kDiagnoseFooter + statusHelp({{kAnswered, "at least one entry works"},
                                                {kNoAnswer, "none works, or there is no answer"}},
                                               kBusStatuses));
  command->callback([arguments, &action] {
    checkAskedUrl(arguments->url);
    checkServer(arguments->url);
    action = [arguments] { return diagnose(*arguments); };
  });
}

}  // namespace client
