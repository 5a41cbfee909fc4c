// The JSON form of an answer: an answer of the daemon, or of a script that a command tries out.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "client/library/proxy_answer.h"

namespace client {

/// One entry of an answer, and whether the daemon would leave this entry out of its answers.
struct ShownEntry {
  ProxyEntry entry;
  bool isDropped = false;
};

struct ShownAnswer {
  std::string url;                    ///< as given; the output may hide its password
  std::optional<std::string> mode;    ///< not set for a script that a command tries out
  std::string host;                   ///< the host of the question
  std::optional<std::string> result;  ///< the text of the entries, if there is an answer
  std::vector<ShownEntry> entries;
  std::optional<std::string> error;  ///< why there is no result

  /// Whether the answer has an entry that a program can use or try.
  bool isAnswered() const;
};

/// The answer as a JSON object with url, mode, host, answered, result, entries and error, in this
/// order.
nlohmann::ordered_json jsonOf(const ShownAnswer& answer, bool showPassword);

/// A description of the object that jsonOf() returns, for help texts.
inline constexpr const char* kAnswerShape =
    R"(    url       the URL as given, with its password hidden
    mode      off, manual, pacurl, wpad or local; null for pac eval
    host      the host that is asked about
    answered  whether there is an entry that the daemon gives
    result    the entries as text, or null
    entries   array of objects: text, kind (direct, http, https, socks4,
              socks4a, socks5, socks5h or unusable), proxy (its URL, or null)
              and dropped (true if the daemon leaves the entry out)
    error     why there is no result, or null
)";

}  // namespace client
