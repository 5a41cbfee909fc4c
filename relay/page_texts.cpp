#include "relay/page_texts.h"

#include <nlohmann/json.hpp>

#include "base/ascii.h"

namespace relay {

namespace {

constexpr std::size_t kMaxQueryValue = 8192;

std::string timeText(std::time_t time) {
  std::tm parts{};
  char text[32] = "";
  gmtime_r(&time, &parts);
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%SZ", &parts);
  return text;
}

void row(std::string& html, const std::string& name, const std::string& value) {
  html += "<tr><th>" + escaped(name) + "</th><td>" + escaped(value) + "</td></tr>\n";
}

void addState(std::string& html, const Report& report) {
  html += "<table>\n";
  row(html, "Mode", report.mode.empty() ? "no answer: " + report.problem : report.mode);
  if (!report.source.empty()) row(html, "Source", report.source);
  if (report.scriptAge) row(html, "Script's age", std::to_string(report.scriptAge->count()) + " s");
  const auto& counters = report.counters;
  row(html, "Connections now", std::to_string(counters.open));
  row(html, "Connections", std::to_string(counters.connections));
  row(html, "Tunnels", std::to_string(counters.tunnels));
  row(html, "Requests", std::to_string(counters.requests));
  row(html, "Failed", std::to_string(counters.failed));
  row(html, "Refused", std::to_string(counters.refused));
  row(html, "Malformed", std::to_string(counters.malformed));
  html += "</table>\n";
}

void addWay(std::string& html, const Report& report) {
  html +=
      "<h2>Which way for this URL?</h2>\n<form action=\"/\" method=\"get\"><input name=\"url\" "
      "size=\"60\" value=\"" +
      escaped(report.askedUrl) + "\"> <button>Ask</button></form>\n";
  if (report.askedUrl.empty()) return;
  html += "<ol>\n";
  for (const auto& entry : report.way) html += "<li>" + escaped(entry) + "</li>\n";
  html += "</ol>\n";
}

void addPenalties(std::string& html, const Report& report) {
  if (report.penalties.empty()) return;
  html += "<h2>Proxies that are tried last</h2>\n<table>\n";
  for (const auto& penalty : report.penalties) {
    row(html, penalty.entry, penalty.reason + " (" + std::to_string(penalty.rest.count()) + " s)");
  }
  html += "</table>\n";
}

void addDecisions(std::string& html, const Report& report) {
  html += "<h2>Last decisions</h2>\n";
  if (!report.isUserKnown) {
    html += "<p>Your user is not known, so none are shown.</p>\n";
    return;
  }
  html += "<table>\n";
  for (const auto& decision : report.decisions) {
    html += decision.isGood ? "<tr>" : "<tr class=\"failed\">";
    html += "<td>" + timeText(decision.time) + "</td><td>" + escaped(decision.destination) +
            "</td><td>" + escaped(decision.entry) + "</td></tr>\n";
  }
  html += "</table>\n";
}

void metric(std::string& text, const std::string& name, const char* kind, const char* help,
            std::uint64_t value) {
  const std::string whole = "proxymanager_relay_" + name;
  const bool isCounter = std::string_view(kind) == "counter";
  text += "# TYPE " + whole + " " + kind + "\n# HELP " + whole + " " + help + "\n" + whole +
          (isCounter ? "_total " : " ") + std::to_string(value) + "\n";
}

}  // namespace

std::string escaped(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      case '\'':
        safe += "&#39;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

std::string htmlOf(const Report& report) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<title>proxymanager-relay</title>\n<link rel=\"stylesheet\" href=\"/style.css\">\n</head>\n"
      "<body>\n<h1>proxymanager-relay</h1>\n";
  addState(html, report);
  addWay(html, report);
  addPenalties(html, report);
  addDecisions(html, report);
  return html + "</body>\n</html>\n";
}

const char* pageStyle() {
  return "body { font: 16px/1.4 sans-serif; margin: 2em auto; max-width: 60em; padding: 0 1em; }\n"
         "table { border-collapse: collapse; }\n"
         "th, td { border-bottom: 1px solid #ccc; padding: 0.2em 1em 0.2em 0; text-align: left; "
         "vertical-align: top; }\n"
         ".failed td { color: #a00; }\n";
}

std::string jsonOf(const Report& report) {
  nlohmann::json json;
  json["mode"] = report.mode;
  json["source"] = report.source;
  json["problem"] = report.problem;
  json["script_age_seconds"] = nullptr;
  if (report.scriptAge) json["script_age_seconds"] = report.scriptAge->count();
  const auto& counters = report.counters;
  json["counters"] = {{"open", counters.open},          {"connections", counters.connections},
                      {"refused", counters.refused},    {"tunnels", counters.tunnels},
                      {"requests", counters.requests},  {"failed", counters.failed},
                      {"malformed", counters.malformed}};
  json["questions"] = {{"asked", report.asked}, {"waiting", report.waiting}};
  json["penalties"] = nlohmann::json::array();
  for (const auto& penalty : report.penalties) {
    json["penalties"].push_back(
        {{"entry", penalty.entry}, {"reason", penalty.reason}, {"seconds", penalty.rest.count()}});
  }
  json["decisions"] = nlohmann::json::array();
  for (const auto& decision : report.decisions) {
    json["decisions"].push_back({{"time", decision.time},
                                 {"user", decision.user},
                                 {"destination", decision.destination},
                                 {"entry", decision.entry},
                                 {"ok", decision.isGood}});
  }
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string metricsOf(const Report& report) {
  std::string text;
  const auto& counters = report.counters;
  metric(text, "open_connections", "gauge", "Connections of clients now.", counters.open);
  metric(text, "connections", "counter", "Connections of clients.", counters.connections);
  metric(text, "refused", "counter", "Connections over a limit, or not allowed.", counters.refused);
  metric(text, "tunnels", "counter", "Tunnels that were connected.", counters.tunnels);
  metric(text, "requests", "counter", "Requests in absolute form that were answered.",
         counters.requests);
  metric(text, "failed", "counter", "Requests without any way.", counters.failed);
  metric(text, "malformed", "counter", "Requests that were refused as malformed.",
         counters.malformed);
  metric(text, "questions_asked", "gauge", "Questions with the daemon now.", report.asked);
  metric(text, "questions_waiting", "gauge", "Questions that wait for their turn.", report.waiting);
  metric(text, "penalties", "gauge", "Proxies that are tried last now.", report.penalties.size());
  return text + "# EOF\n";
}

std::string scriptFor(const std::string& place) {
  return "// Browsers find proxymanager-relay by this script.\n"
         "function FindProxyForURL(url, host) {\n  return \"PROXY " +
         place + "\";\n}\n";
}

std::optional<std::string> queryValue(std::string_view query, std::string_view name) {
  while (!query.empty()) {
    const auto end = std::min(query.find('&'), query.size());
    const auto pair = query.substr(0, end);
    query.remove_prefix(end < query.size() ? end + 1 : end);
    if (!pair.starts_with(name) || pair.substr(name.size(), 1) != "=") continue;
    std::string value;
    for (std::size_t at = name.size() + 1; at < pair.size() && value.size() < kMaxQueryValue;
         at++) {
      const bool isCode = pair[at] == '%' && at + 2 < pair.size() &&
                          base::hexValue(pair[at + 1]) >= 0 && base::hexValue(pair[at + 2]) >= 0;
      if (isCode) {
        value +=
            static_cast<char>(base::hexValue(pair[at + 1]) * 16 + base::hexValue(pair[at + 2]));
        at += 2;
      } else {
        value += pair[at] == '+' ? ' ' : pair[at];
      }
    }
    return value;
  }
  return std::nullopt;
}

}  // namespace relay
