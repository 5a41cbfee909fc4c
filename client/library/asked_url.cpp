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
    // The canonical form has decoded a percent-encoded byte in the host. The bus may not be able to
    // carry this byte.
    return isBusText(*asked) ? asked : std::nullopt;
  }
  if (asked->find("://") != std::string::npos) return std::nullopt;  // a password may be anywhere
  const auto at = asked->rfind('@');
  if (at == std::string::npos) return asked;
  // In "me:pw/x@host" and "http:/me:pw@host", it is not clear where a password begins and ends.
  if (at > asked->find_first_of("/?#")) return std::nullopt;
  return asked->substr(at + 1);
}

}  // namespace client
