// Tests the URL that a script sees: it has no secrets and is not longer than the limit. If this URL
// is converted again, it does not change.
#include <algorithm>
#include <string>
#include <string_view>

#include "domain/canonical_url.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using domain::canonicalUrl;
using fuzz::require;

namespace {

constexpr std::string_view kMark = "://";
constexpr char kSecret[] = "s3cretZQ";

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), lower);
  return text;
}

bool isControl(unsigned char c) {
  return c < 0x20 || c == 0x7F;
}

void checkCleaned(const std::string& url, const std::string& cleaned) {
  const auto scheme = cleaned.substr(0, cleaned.find(kMark));
  const auto rest = cleaned.substr(scheme.size() + kMark.size());
  require(scheme == lowered(url.substr(0, url.find(kMark))), "the scheme stays, in lower case");
  require(std::none_of(cleaned.begin(), cleaned.end(), isControl), "no control character");
  require(cleaned.find('#') == std::string::npos, "no fragment");
  const auto authority = rest.substr(0, rest.find_first_of("/?"));
  require(authority.find('@') == std::string::npos, "no user name or password");
  // The zone of an IPv6 address is the name of an interface, and its letter case matters.
  const auto host =
      authority.substr(0, authority.starts_with('[') ? authority.find('%') : rest.npos);
  require(host == lowered(host), "the host is in lower case");
  if (scheme == "https" || scheme == "wss")
    require(rest.substr(authority.size()) == "/", "of https no path and no query");
  require(canonicalUrl(cleaned) == cleaned, "what is clean stays");
}

// Adds a user name, a password and a fragment to the URL. The script must not see them.
void checkSecrets(const std::string& url) {
  if (lowered(url).find(lowered(kSecret)) != std::string::npos) return;
  const auto authority = url.find(kMark) + kMark.size();
  std::string told = url.substr(0, authority) + "me:" + kSecret + "@" + url.substr(authority);
  told += std::string("#") + kSecret;
  const auto cleaned = canonicalUrl(told);
  require(!cleaned || lowered(*cleaned).find(lowered(kSecret)) == std::string::npos,
          "neither password nor fragment is told");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string url(fuzz::textOf(data, size));
  const auto cleaned = canonicalUrl(url);
  if (!cleaned) return 0;
  require(cleaned->size() <= domain::kMaxUrlBytes, "8 KiB at most");
  if (!domain::hasScheme(url)) {
    require(*cleaned == url, "a text without a valid scheme stays as it is");
    return 0;
  }
  checkCleaned(url, *cleaned);
  checkSecrets(url);
  return 0;
}
