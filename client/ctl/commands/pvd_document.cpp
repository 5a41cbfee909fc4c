#include "client/ctl/commands/pvd_document.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>

#include "base/ascii.h"

namespace client::pvd {

namespace {

using Json = nlohmann::json;

/// Thrown to refuse the whole document.
struct Refused {
  std::string why;
};

/// Thrown to ignore one proxy or one rule.
struct Ignored {
  std::string why;
};

// --- JSON: the rules of I-JSON that the parser does not check ---

/// Refuses a document that nests too deeply, and an object in which a name appears twice: some
/// parsers use the first value of the name, and others use the last value.
class Shape {
 public:
  bool operator()(int depth, Json::parse_event_t event, const Json& value) {
    if (static_cast<std::size_t>(depth) > kMaxDepth) throw Refused{"it is nested too deeply"};
    if (event == Json::parse_event_t::object_start) mNames.emplace_back();
    if (event == Json::parse_event_t::object_end) mNames.pop_back();
    if (event == Json::parse_event_t::key &&
        !mNames.back().insert(value.get<std::string>()).second) {
      throw Refused{"a name stands twice in one object: " + value.get<std::string>()};
    }
    return true;
  }

 private:
  std::vector<std::set<std::string>> mNames;
};

Json parsed(std::string_view text) {
  if (text.size() > kMaxDocumentBytes) throw Refused{"it is longer than 256 KiB"};
  Shape shape;
  try {
    return Json::parse(text, [&](int depth, Json::parse_event_t event, Json& value) {
      return shape(depth, event, value);
    });
  } catch (const Json::exception& error) {
    throw Refused{std::string("it is no JSON: ") + error.what()};
  }
}

const std::string* textIn(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get_ptr<const std::string*>()
                                                     : nullptr;
}

/// The array of texts under `name`. Returns nothing if there is no such name. Throws Ignored if the
/// value has another type.
std::optional<std::vector<std::string>> textsIn(const Json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end()) return {};
  const bool isArray =
      found->is_array() &&
      std::all_of(found->begin(), found->end(), [](const Json& one) { return one.is_string(); });
  if (!isArray) throw Ignored{std::string("\"") + name + "\" is no array of texts"};
  return found->get<std::vector<std::string>>();
}

// --- Values ---

/// A name in the form for comparisons: in lower case, without a dot at the end.
std::string bareName(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return base::lowerCase(name);
}

template <typename Number>
std::optional<Number> numberOf(std::string_view text, Number least, Number most) {
  Number number{};
  const auto* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > most) return {};
  return number;
}

std::optional<std::uint16_t> portOf(std::string_view text) {
  return numberOf<std::uint16_t>(text, 1, 65535);
}

bool isAddress(const std::string& text, int family) {
  std::array<std::uint8_t, 16> bytes{};
  return inet_pton(family, text.c_str(), bytes.data()) == 1;
}

bool isHostAndPort(std::string_view text) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos || !portOf(text.substr(colon + 1))) return false;
  const auto host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    return isAddress(std::string(host.substr(1, host.size() - 2)), AF_INET6);
  }
  return isHostName(host);
}

/// Whether `text` is a URI template. This program does not expand it.
bool isTemplate(std::string_view text) {
  return base::equalIgnoringCase(text.substr(0, 8), "https://") && text.size() > 8 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

std::string domainOf(const std::string& text) {
  const auto bare = bareName(text);
  const auto name = std::string_view(bare).substr(bare.starts_with("*.") ? 2 : 0);
  if (!isHostName(name) || isAddress(std::string(name), AF_INET)) {
    throw Ignored{"\"" + text + "\" is no domain"};
  }
  return bare;
}

Subnet subnetOf(const std::string& text) {
  const auto slash = text.find('/');
  const auto address = text.substr(0, slash);
  const int family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
  Subnet subnet;
  subnet.bytes.resize(family == AF_INET ? 4 : 16);
  const auto bits = static_cast<unsigned>(subnet.bytes.size() * 8);
  std::optional<unsigned> length = bits;
  if (slash != std::string::npos) length = numberOf<unsigned>(text.substr(slash + 1), 0, bits);
  if (!length || inet_pton(family, address.c_str(), subnet.bytes.data()) != 1) {
    throw Ignored{"\"" + text + "\" is no subnet"};
  }
  subnet.length = *length;
  for (unsigned bit = *length; bit < bits; ++bit) {
    subnet.bytes[bit / 8] &= static_cast<std::uint8_t>(~(0x80U >> (bit % 8)));
  }
  return subnet;
}

Ports portsOf(const std::string& text) {
  const auto dash = text.find('-');
  const auto first = portOf(std::string_view(text).substr(0, dash));
  const auto last =
      dash == std::string::npos ? first : portOf(std::string_view(text).substr(dash + 1));
  if (!first || !last || *first > *last)
    throw Ignored{"\"" + text + "\" is no port or range of ports"};
  return {*first, *last};
}

// --- Proxies ---

constexpr std::initializer_list<const char*> kProxyKeys{"protocol", "proxy", "mandatory", "alpn",
                                                        "identifier"};

bool isOneOf(std::string_view text, std::initializer_list<const char*> all) {
  return std::find(all.begin(), all.end(), text) != all.end();
}

/// The keys that a client must understand to use the proxy.
std::vector<std::string> mandatoryOf(const Json& entry, std::vector<std::string>& warnings) {
  auto mandatory = textsIn(entry, "mandatory").value_or(std::vector<std::string>{});
  for (const auto& key : mandatory) {
    if (!isOneOf(key, kProxyKeys)) throw Ignored{"its mandatory key \"" + key + "\" is not known"};
    if (!entry.contains(key))
      warnings.push_back("a proxy's mandatory key \"" + key + "\" is not there");
  }
  return mandatory;
}

/// Reads the hint "alpn". Programs that get an answer of the daemon use HTTP/1.1 with proxies. They
/// cannot use another protocol.
void readAlpn(const Json& entry, const std::vector<std::string>& mandatory, Proxy& proxy) {
  const bool isMandatory = std::find(mandatory.begin(), mandatory.end(), "alpn") != mandatory.end();
  try {
    const auto alpn = textsIn(entry, "alpn").value_or(std::vector<std::string>{});
    proxy.speaksOtherHttp =
        std::any_of(alpn.begin(), alpn.end(), [](const auto& one) { return one != "http/1.1"; });
  } catch (const Ignored&) {
    // The key is an optional hint, so a value of a wrong type is ignored.
    if (isMandatory) throw;
  }
  if (isMandatory && proxy.speaksOtherHttp)
    throw Ignored{"its mandatory \"alpn\" names more than http/1.1"};
}

void checkLocation(const Proxy& proxy) {
  const bool wantsHost = isOneOf(proxy.protocol, {"socks5", "http-connect", "https-connect"});
  const bool wantsTemplate = isOneOf(proxy.protocol, {"connect-udp", "connect-ip", "connect-tcp"});
  if (!wantsHost && !wantsTemplate) throw Ignored{"its protocol is not known"};
  if (wantsHost && !isHostAndPort(proxy.location))
    throw Ignored{"its location is no host and port"};
  if (wantsTemplate && !isTemplate(proxy.location))
    throw Ignored{"its location is no URI template"};
}

void readProxy(const Json& entry, Proxy& proxy, std::vector<std::string>& warnings) {
  if (!entry.is_object()) throw Ignored{"it is no object"};
  if (const auto* const text = textIn(entry, "protocol")) proxy.protocol = *text;
  if (const auto* const text = textIn(entry, "proxy")) proxy.location = *text;
  if (entry.contains("identifier")) {
    const auto* const text = textIn(entry, "identifier");
    // The wrong identifier is kept: without an identifier, the proxy would accept any traffic.
    proxy.identifier = text == nullptr ? "" : *text;
    if (proxy.identifier->empty()) throw Ignored{"its identifier is empty or no text"};
  }
  if (proxy.protocol.empty() || proxy.location.empty()) {
    throw Ignored{"it lacks \"protocol\" or \"proxy\""};
  }
  readAlpn(entry, mandatoryOf(entry, warnings), proxy);
  checkLocation(proxy);
}

// --- Rules ---

template <typename Value, typename Read>
void readValues(const Json& entry, const char* name, std::vector<Value>& values, Read readValue) {
  const auto texts = textsIn(entry, name);
  if (!texts) return;
  if (texts->empty()) throw Ignored{std::string("\"") + name + "\" is empty"};
  std::transform(texts->begin(), texts->end(), std::back_inserter(values), readValue);
}

void readRule(const Json& entry, Rule& rule) {
  if (!entry.is_object()) throw Ignored{"it is no object"};
  for (const auto& [name, value] : entry.items()) {
    if (!isOneOf(name, {"proxies", "domains", "subnets", "ports"})) {
      throw Ignored{"its key \"" + name + "\" is not known"};
    }
    if (value.is_array() && value.size() > kMaxValues) {
      throw Refused{"a rule has more than 256 values in \"" + name + '"'};
    }
  }
  const auto proxies = textsIn(entry, "proxies");
  if (!proxies) throw Ignored{"it lacks \"proxies\""};
  rule.proxies = *proxies;
  readValues(entry, "domains", rule.domains, domainOf);
  readValues(entry, "subnets", rule.subnets, subnetOf);
  readValues(entry, "ports", rule.ports, portsOf);
}

// --- The document ---

/// The array under `name`; empty if there is no such name.
Json listIn(const Json& object, const char* name, std::size_t most) {
  const auto found = object.find(name);
  if (found == object.end()) return Json::array();
  if (!found->is_array()) throw Refused{std::string("\"") + name + "\" is no array"};
  if (found->size() > most) {
    throw Refused{std::string("\"") + name + "\" has more than " + std::to_string(most) +
                  " entries"};
  }
  return *found;
}

void readHead(const Json& object, const std::optional<std::string>& host, std::int64_t now,
              Document& document) {
  const auto* const identifier = textIn(object, "identifier");
  const auto* const expires = textIn(object, "expires");
  const auto prefixes = object.find("prefixes");
  if (identifier == nullptr || expires == nullptr || prefixes == object.end() ||
      !prefixes->is_array()) {
    throw Refused{"it lacks \"identifier\", \"expires\" or \"prefixes\""};
  }
  document.identifier = *identifier;
  document.expires = *expires;
  if (!isHostName(bareName(*identifier))) throw Refused{"its identifier is no host name"};
  if (!host) {
    document.warnings.emplace_back(
        "the identifier was not compared with the proxy's name (--host)");
  } else if (bareName(*identifier) != bareName(*host)) {
    throw Refused{"it is of \"" + *identifier + "\", not of \"" + *host + '"'};
  }
  const auto end = timeOf(*expires);
  if (!end) throw Refused{"\"expires\" is no time"};
  if (*end <= now) throw Refused{"it expired at " + *expires};
  if (!prefixes->empty()) {
    document.warnings.emplace_back("\"prefixes\" is not empty, as that of a proxy should be");
  }
}

template <typename Entry, typename Read>
void readEntry(const Json& json, std::vector<Entry>& entries, const Read& readInto) {
  auto& entry = entries.emplace_back();
  try {
    readInto(json, entry);
  } catch (const Ignored& ignored) {
    entry.whyIgnored = ignored.why;
  }
}

Document documentOf(const Json& object, const std::optional<std::string>& host, std::int64_t now) {
  if (!object.is_object()) throw Refused{"it is no JSON object"};
  Document document;
  readHead(object, host, now, document);
  for (const auto& entry : listIn(object, "proxies", kMaxProxies)) {
    readEntry(entry, document.proxies,
              [&](const Json& json, Proxy& proxy) { readProxy(json, proxy, document.warnings); });
  }
  for (const auto& entry : listIn(object, "proxy-match", kMaxRules)) {
    readEntry(entry, document.rules, readRule);
  }
  return document;
}

/// Reads the offset of a time from UTC: "Z", "+01:00" or "-01:00". @return seconds
std::optional<std::int64_t> offsetOf(std::string_view zone) {
  if (zone == "Z" || zone == "z") return 0;
  if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') return {};
  const auto hours = numberOf<unsigned>(zone.substr(1, 2), 0, 23);
  const auto minutes = numberOf<unsigned>(zone.substr(4, 2), 0, 59);
  if (!hours || !minutes) return {};
  const std::int64_t seconds = *hours * 3600 + *minutes * 60;
  return zone[0] == '+' ? seconds : -seconds;
}

}  // namespace

std::string textOf(const Subnet& subnet) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(subnet.bytes.size() == 4 ? AF_INET : AF_INET6, subnet.bytes.data(), text.data(),
            text.size());
  return std::string(text.data()) + '/' + std::to_string(subnet.length);
}

bool isHostName(std::string_view text) {
  if (text.empty() || text.size() > 253 || text.front() == '.' || text.back() == '.') return false;
  std::size_t label = 0;
  for (const char c : text) {
    label = c == '.' ? 0 : label + 1;
    const bool isPart = base::isLetter(c) || base::isDigit(c) || c == '-' || c == '_' || c == '.';
    if (!isPart || label > 63) return false;
  }
  return text.find("..") == std::string_view::npos;
}

std::optional<std::int64_t> timeOf(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00";
  if (text.size() <= kForm.size()) return {};
  for (const auto at : {4U, 7U, 10U, 13U, 16U}) {
    if (text[at] != kForm[at] && !(at == 10 && text[at] == 't')) return {};
  }
  const auto number = [&](std::size_t at, std::size_t length, unsigned most) {
    return numberOf<unsigned>(text.substr(at, length), 0, most);
  };
  const auto year = number(0, 4, 9999), month = number(5, 2, 12), day = number(8, 2, 31),
             hour = number(11, 2, 23), minute = number(14, 2, 59), second = number(17, 2, 60);
  if (!year || !month || !day || !hour || !minute || !second) return {};
  auto zone = text.substr(kForm.size());
  if (zone.starts_with('.')) {
    const auto end = zone.find_first_not_of("0123456789", 1);
    if (end == 1 || end == std::string_view::npos) return {};
    zone.remove_prefix(end);
  }
  const auto offset = offsetOf(zone);
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(*month), std::chrono::day(*day)};
  if (!offset || !date.ok()) return {};
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  return days * 86400 + *hour * 3600 + *minute * 60 + *second - *offset;
}

Reading read(std::string_view text, const std::optional<std::string>& host, std::int64_t now) {
  try {
    return {documentOf(parsed(text), host, now), {}};
  } catch (const Refused& refused) {
    return {std::nullopt, refused.why};
  }
}

}  // namespace client::pvd
