// Tests the candidates of a search list. The host of every URL is "wpad" below a name of the list.
// According to curl's reading of the URL, this host is never directly below a public suffix.
#include <curl/curl.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "domain/public_suffix.h"
#include "domain/tld.h"
#include "fetcher/pac_fetcher.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

constexpr std::string_view kBegin = "http://wpad.";
constexpr std::string_view kEnd = "/wpad.dat";
constexpr std::size_t kMostCandidates = 32;

/// The host to which curl would send the request; empty if curl refuses the URL.
std::string hostByCurl(const std::string& url) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
  char* host = nullptr;
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK)
    return {};
  const std::unique_ptr<char, decltype(&curl_free)> owned(host, &curl_free);
  return host;
}

std::string lowered(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string withoutOuterDots(std::string name) {
  name.erase(0, std::min(name.find_first_not_of('.'), name.size()));
  name.erase(name.find_last_not_of('.') + 1);
  return name;
}

/// Whether `name` is a token of the list or, if `partly`, the end of a token after a dot.
bool isOf(const std::string& domain, const std::string& name, bool partly) {
  fuzz::Input tokens(reinterpret_cast<const std::uint8_t*>(domain.data()), domain.size());
  while (!tokens.empty()) {
    const auto token = tokens.upTo(' ');
    if (token == name || (partly && token.ends_with("." + name))) return true;
  }
  return false;
}

void checkCandidate(const std::string& domain, const std::string& url) {
  require(url.starts_with(kBegin) && url.ends_with(kEnd), "a candidate is wpad.NAME/wpad.dat");
  const auto name = url.substr(kBegin.size(), url.size() - kBegin.size() - kEnd.size());
  require(name.find(' ') == std::string::npos && isOf(domain, name, true),
          "its name is of the list");
  const auto folded = lowered(withoutOuterDots(name));
  require(folded.size() <= 253, "DNS can hold it");
  require(!isPublicSuffix(folded), "its name is no public suffix");
  require(folded.empty() || isEffectiveTld(folded) == 0, "nor one of the built-in table");
  const auto host = hostByCurl(url);
  require(host.empty() || lowered(host) == lowered("wpad." + name), "its host is that name's");
  require(folded.find('.') != std::string::npos || isOf(domain, name, false),
          "one label only where the list has it so");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const PACFetcher fetcher(nullptr, "none", 1800);
  const std::string domain(fuzz::textOf(data, size));
  const auto candidates = fetcher.wpadUrlCandidatesFromDomain(domain);
  require(candidates.size() <= kMostCandidates, "no more candidates than anybody waits for");
  for (const auto& url : candidates) checkCandidate(domain, url);
  return 0;
}
