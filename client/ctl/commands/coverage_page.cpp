#include "client/ctl/commands/coverage_page.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "base/visible.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<title>Coverage of a PAC script</title>
<style>
body { font-family: sans-serif; margin: 1.5em; color: #222; background: #fff; }
h1 { font-size: 1.4em; overflow-wrap: anywhere; }
h2 { font-size: 1.1em; }
table { border-collapse: collapse; }
th { text-align: left; }
th, td { padding: 0.1em 0.7em; vertical-align: top; }
td.n { text-align: right; color: #555; font-family: monospace; }
td.c { font-family: monospace; white-space: pre-wrap; overflow-wrap: anywhere; tab-size: 4; }
tr.hit td.c { background: #e2f4e2; }
tr.half td.c { background: #fdf3cf; }
tr.miss td.c { background: #fadcdc; }
tr:target td.c { outline: 2px solid #36c; }
</style>
</head>
<body>
)";

std::string escaped(std::string_view text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      default:
        html += c;
    }
  }
  return html;
}

std::string cell(const char* kind, std::string_view text) {
  return std::string("<td class=\"") + kind + "\">" + escaped(text) + "</td>";
}

/// The hits of a line: the highest count of its places, and whether a place or a branch of the line
/// was missed.
struct LineHits {
  std::uint64_t most = 0;
  bool hasMiss = false;
};

std::map<std::size_t, LineHits> hitsOf(const InstrumentedScript& script, const Coverage& coverage) {
  std::map<std::size_t, LineHits> lines;
  for (const auto& total : coverage.places) {
    const auto& place = script.places[total.place];
    const auto both = total.truthy + total.falsy;
    const bool isStatement = place.is('s') || place.is('c');
    if (!isStatement && !place.is('r') && !place.is('t')) continue;
    auto& line = lines[place.line];
    const auto reached = isStatement ? total.reached : both;
    line.most = std::max(line.most, reached);
    const bool isHalf = place.is('t') && (total.truthy == 0 || total.falsy == 0);
    line.hasMiss = line.hasMiss || reached == 0 || isHalf;
  }
  return lines;
}

/// `line` of the source with its control characters made visible. Tabs stay tabs.
std::string shownSource(std::string_view line) {
  std::string shown;
  for (auto tab = line.find('\t'); tab != std::string_view::npos; tab = line.find('\t')) {
    shown += base::visible(line.substr(0, tab)) + '\t';
    line.remove_prefix(tab + 1);
  }
  return shown + base::visible(line);
}

std::string sourceRows(const InstrumentedScript& script, const Coverage& coverage) {
  const auto lines = hitsOf(script, coverage);
  std::string html;
  std::size_t number = 0;
  for (std::string_view rest = script.source; !rest.empty();) {
    const auto end = rest.find('\n');
    const auto found = lines.find(++number);
    const char* kind = "none";
    if (found != lines.end()) {
      kind = found->second.most == 0 ? "miss" : found->second.hasMiss ? "half" : "hit";
    }
    const auto label = std::to_string(number);
    html += std::string("<tr class=\"") + kind + "\" id=\"L" + label + "\">" + cell("n", label) +
            cell("n", found == lines.end() ? "" : std::to_string(found->second.most)) +
            cell("c", shownSource(rest.substr(0, end))) + "</tr>\n";
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return html;
}

std::string urlRows(const InstrumentedScript& script, const Coverage& coverage) {
  std::string html;
  for (const auto& url : coverage.urls) {
    std::string line;
    if (url.decidedBy) line = std::to_string(script.places[*url.decidedBy].line);
    html += "<tr>" + cell("n", std::to_string(url.times)) +
            cell("c", base::visible(withoutPassword(url.url))) +
            cell("c", base::visible(url.result ? *url.result : url.error)) + "<td class=\"n\">" +
            (line.empty() ? "" : "<a href=\"#L" + line + "\">" + line + "</a>") + "</td><td>" +
            (url.isDifferent ? "wrong: the instrumented script has another answer" : "") +
            "</td></tr>\n";
  }
  return html;
}

/// The notes of coverageNotes() as rows of the page. Empty if there are no notes.
std::string noteRows(const InstrumentedScript& script, const Coverage& coverage) {
  std::string html;
  for (const auto& note : coverageNotes(script, coverage))
    html += "<tr>" + cell("c", base::visible(note)) + "</tr>\n";
  return html.empty() ? "" : "<h2>Notes</h2>\n<table>\n" + html + "</table>\n";
}

}  // namespace

std::vector<std::string> coverageNotes(const InstrumentedScript& script, const Coverage& coverage) {
  std::vector<std::string> notes;
  for (const auto& note : script.notes)
    notes.push_back("line " + std::to_string(note.line) + ": " + note.text);
  if (coverage.ownText)
    notes.emplace_back(
        "the script reads the text of a function; the instrumented script has another text");
  if (coverage.madeCut)
    notes.push_back("only " + std::to_string(coverage.made) +
                    " of the URLs that can be made from the script were tried");
  return notes;
}

std::string shownShare(const Share& share) {
  const auto percent = share.all == 0 ? 100 : share.reached * 100 / share.all;
  return std::to_string(share.reached) + " of " + std::to_string(share.all) + " (" +
         std::to_string(percent) + " %)";
}

std::string shownMiss(const InstrumentedScript& script, const MissedRule& rule) {
  if (rule.isDead) return "dead: no URL can reach it";
  if (!rule.reachedBy.empty())
    return "not hit; " + withoutPassword(rule.reachedBy) + " would reach it";
  if (!rule.shadow) return "not hit";
  return "shadowed: line " + std::to_string(script.places[*rule.shadow].line) + " answers " +
         withoutPassword(rule.shadowedUrl);
}

std::string coveragePage(const std::string& file, const InstrumentedScript& script,
                         const Coverage& coverage) {
  std::string html = kHead;
  html += "<h1>Coverage of " + escaped(base::visible(file)) + "</h1>\n<table>\n";
  html += "<tr><th>statements</th><td>" + shownShare(coverage.statements) + "</td></tr>\n";
  html += "<tr><th>branches</th><td>" + shownShare(coverage.branches) + "</td></tr>\n";
  html += "<tr><th>rules</th><td>" + shownShare(coverage.rules) + "</td></tr>\n</table>\n";
  html += noteRows(script, coverage);
  html += "<h2>Rules that no URL of the list reached</h2>\n<table>\n";
  for (const auto& rule : coverage.missed) {
    const auto& place = script.places[rule.place];
    const auto line = std::to_string(place.line);
    html += "<tr><td class=\"n\"><a href=\"#L" + line + "\">" + line + "</a></td>" +
            cell("c", base::visible(place.source)) + "<td>" +
            escaped(base::visible(shownMiss(script, rule))) + "</td></tr>\n";
  }
  html += "</table>\n<h2>The script</h2>\n<table>\n<tr><th>line</th><th>hits</th><th></th></tr>\n";
  html += sourceRows(script, coverage);
  html +=
      "</table>\n<h2>The URLs and their answers</h2>\n<table>\n<tr><th>times</th><th>URL</th>"
      "<th>answer</th><th>line</th><th></th></tr>\n";
  html += urlRows(script, coverage);
  return html + "</table>\n</body>\n</html>\n";
}

}  // namespace client
