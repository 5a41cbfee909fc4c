#include "client/library/asked_url.h"

#include "client/library/bus_text.h"
#include "client/library/include/proxymanager/client.h"
#include "domain/canonical_url.h"

namespace client {

std::optional<std::string> askedUrl(std::string_view url) {
  if (url.size() > PROXYMANAGER_MAX_URL || !isBusText(url)) return std::nullopt;
  auto asked = domain::canonicalUrl(url, PROXYMANAGER_MAX_URL);
  if (!asked) return std::nullopt;
  if (domain::hasScheme(*asked)) {
    // An encoded byte in the host may be one that the bus cannot carry.
    return isBusText(*asked) ? asked : std::nullopt;
  }
  if (asked->find("://") != std::string::npos) return std::nullopt;  // a password may be anywhere
  const auto authority = asked->substr(0, asked->find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string::npos) asked->erase(0, at + 1);
  return asked;
}

}  // namespace client
