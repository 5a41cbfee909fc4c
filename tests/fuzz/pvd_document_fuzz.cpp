// Tests documents of proxy information with any content. The script that is made from a document
// has only entries of proxies that passed the check, and it never has a rule that was ignored.
#include <algorithm>
#include <string>

#include "client/ctl/commands/pvd_document.h"
#include "client/ctl/commands/pvd_script.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
namespace pvd = client::pvd;

namespace {

constexpr std::int64_t kNow = 1'790'000'000;

void checkDocument(const pvd::Document& document) {
  require(document.proxies.size() <= pvd::kMaxProxies, "no more proxies than are allowed");
  require(document.rules.size() <= pvd::kMaxRules, "no more rules than are allowed");
  require(pvd::timeOf(document.expires).value_or(0) > kNow, "it has not expired");
  for (const auto& proxy : document.proxies) {
    require(!proxy.whyIgnored.empty() || !proxy.location.empty(), "a proxy has a location");
  }
}

/// Each quoted text after "return" is an answer that the document gives.
void checkAnswers(const pvd::Document& document, const std::string& script) {
  std::size_t at = script.find("FindProxyForURL");
  while ((at = script.find("return \"", at)) != std::string::npos) {
    at += 8;
    const auto answer = script.substr(at, script.find('"', at) - at);
    for (std::size_t begin = 0; begin < answer.size();) {
      const auto end = std::min(answer.find("; ", begin), answer.size());
      const auto entry = answer.substr(begin, end - begin);
      const bool isOne = std::any_of(
          document.proxies.begin(), document.proxies.end(), [&](const pvd::Proxy& proxy) {
            return proxy.whyIgnored.empty() && pvd::entryOf(proxy) == entry;
          });
      require(entry == "DIRECT" || isOne, "an entry is a proxy of the document, or DIRECT");
      begin = end + 2;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto reading = pvd::read(fuzz::textOf(data, size), std::nullopt, kNow);
  require(reading.document.has_value() == reading.error.empty(), "a document or a reason");
  if (!reading.document) return 0;
  checkDocument(*reading.document);
  const auto script = pvd::scriptOf(*reading.document, "DIRECT");
  require(script.text.empty() != script.error.empty(), "a script or a reason");
  require(std::all_of(script.text.begin(), script.text.end(),
                      [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }),
          "a script is plain ASCII");
  checkAnswers(*reading.document, script.text);
  return 0;
}
