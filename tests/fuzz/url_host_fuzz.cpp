// Tests the search for the host of a URL: the host is a part of the text, cut only at the promised
// places.
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "domain/url_host.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

std::optional<std::string> hostOf(const std::string& url) {
  const std::unique_ptr<char, decltype(&std::free)> host(getHost(url), &std::free);
  if (!host) return std::nullopt;
  return std::string(host.get());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(fuzz::textOf(data, size));
  const auto host = hostOf(url);
  const auto scheme = url.find("://");
  if (scheme == std::string::npos) {
    require(host.has_value() == !url.empty(), "an empty text alone has no host");
    require(!host || *host == url.c_str(), "a text without a scheme is the host as a whole");
    return 0;
  }
  const std::string rest = url.substr(scheme + 3);
  // A slash as the first character does not end the host. Only the first slash is searched for, so
  // in this case no later slash ends the host either.
  const auto cut = rest.starts_with('/') ? rest.find(':') : rest.find_first_of("/:");
  const std::string wanted = rest.substr(0, cut);
  require(host.has_value() == !wanted.empty(), "there is no host where it comes out empty");
  if (!host) return 0;
  require(*host == wanted.c_str(), "the host ends at the first slash or colon");
  require(host->find(':') == std::string::npos, "a host holds no port");
  if (host->starts_with('/')) return 0;
  require(hostOf("http://" + *host + ":80/" + url) == host || host->empty(),
          "a host in another URL is the same host");
  return 0;
}
