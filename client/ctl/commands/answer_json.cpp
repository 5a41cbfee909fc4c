#include "client/ctl/commands/answer_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "client/ctl/terminal/shown_text.h"

namespace client {

bool ShownAnswer::isAnswered() const {
  return std::any_of(entries.begin(), entries.end(), [](auto& shown) { return !shown.isDropped; });
}

nlohmann::ordered_json jsonOf(const ShownAnswer& answer, bool showPassword) {
  using Json = nlohmann::ordered_json;
  const auto shown = [&](const std::string& text) {
    return showPassword ? text : withoutPassword(text);
  };
  const auto orNull = [](const std::optional<std::string>& text) {
    return text ? Json(*text) : Json();
  };
  Json entries = Json::array();
  for (const auto& [entry, isDropped] : answer.entries) {
    const auto proxy = proxyUrl(entry);
    entries.push_back(Json{{"text", shown(entry.text)},
                           {"kind", kindName(entry.kind)},
                           {"proxy", proxy.empty() ? Json() : Json(shown(proxy))},
                           {"dropped", isDropped}});
  }
  Json object;
  object["url"] = answer.url;
  object["mode"] = orNull(answer.mode);
  object["host"] = answer.host;
  object["answered"] = answer.isAnswered();
  object["result"] = answer.result ? Json(shown(*answer.result)) : Json();
  object["entries"] = std::move(entries);
  object["error"] = orNull(answer.error);
  return object;
}

}  // namespace client
