// Tests the search for public suffixes. The built-in table is compared with libpsl, which reads the
// same list from which the table is made. isPublicSuffix(), the guard of the candidate URLs, must
// find every suffix that libpsl's current list has.
//
// These results must agree, for names in ASCII without empty labels, in lower case and without dots
// at their ends:
//  - the guard returns yes if, and only if, libpsl returns yes with the table's list or, for names
//    with a dot, with its current list. In both cases, the rule that an unknown top-level name is a
//    public suffix is not used. International rules are an exception: the table has them only as
//    UTF-8, which no lookup finds, and libpsl also has them in ASCII form. For these rules, libpsl
//    may return yes and the guard no;
//  - if isEffectiveTld() returns yes for a name, the guard also returns yes.
// The other direction is not required: isEffectiveTld() has no wildcards, so it may return no if
// the guard returns yes.
#include <libpsl.h>

#include <string>
#include <string_view>

#include "domain/public_suffix.h"
#include "domain/tld.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

bool isSuffixOf(const psl_ctx_t* list, const std::string& name) {
  return psl_is_public_suffix2(list, name.c_str(), PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE) != 0;
}

// Made once, and never freed.
const psl_ctx_t* builtInList() {
  static const psl_ctx_t* const list = psl_load_file(SUFFIX_LIST);
  require(list != nullptr && psl_suffix_count(list) > 1000, "libpsl reads the table's list");
  return list;
}

std::string lowered(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

/// Whether `name` consists of non-empty labels of visible ASCII that are valid in DNS.
bool isOrdinary(std::string_view name) {
  if (name.empty() || name.size() > 253) return false;
  std::size_t label = 0;
  for (const char c : name) {
    if (c <= ' ' || c >= 0x7F || c == '*' || c == '!' || (c == '.' && label == 0)) return false;
    label = c == '.' ? 0 : label + 1;
    if (label > 63) return false;
  }
  return label > 0;
}

void checkGuard(const std::string& name) {
  const auto seen = lowered(name);
  const bool guarded = isPublicSuffix(name);
  require(isPublicSuffix(seen) == guarded, "case makes no difference");
  require(isPublicSuffix(name + ".") == guarded, "nor does the root's dot");
  if (isEffectiveTld(name) != 0) require(guarded, "what the exact lookup takes is guarded");
  const bool dotted = seen.find('.') != seen.npos;
  const bool builtIn = isSuffixOf(builtInList(), seen);
  const bool current = dotted && isSuffixOf(psl_builtin(), seen);
  if (guarded) require(builtIn || current, "the guard has its yes from one of the lists");
  if (current) require(guarded, "the guard is never laxer than the current list");
  if (builtIn && seen.find("xn--") == seen.npos)
    require(guarded, "the table is read as the list means it");
}

/// Checks topLevelDomain and isEffectiveTld for any text. `suffix` is the result of topLevelDomain
/// for `name`.
void checkLongest(const std::string& name, const std::string& suffix) {
  std::string bare = name;
  while (bare.ends_with('.')) bare.pop_back();
  require(bare.ends_with(suffix), "it ends the name, in the name's case");
  if (!suffix.empty()) {
    require(isEffectiveTld(suffix) != 0, "it is an effective TLD");
    require(suffix.size() == bare.size() || bare[bare.size() - suffix.size() - 1] == '.',
            "it is cut between labels");
  }
  std::string_view rest = bare;
  while (rest.size() > suffix.size()) {
    require(isEffectiveTld(std::string(rest)) == 0, "there is no longer one");
    const auto dot = rest.find('.');
    if (dot == rest.npos) break;
    rest.remove_prefix(dot + 1);
  }
  require(topLevelDomain(lowered(name)) == lowered(suffix), "case makes no difference");
  require(topLevelDomain(name + "..") == suffix, "nor do dots at the end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name(fuzz::textOf(data, size));
  checkLongest(name, topLevelDomain(name));
  require(isInTldArray(name.c_str()) == isInTldArray(lowered(name).c_str()),
          "case makes no difference to the table");
  require(tldhash(name.c_str()) == tldhash(lowered(name).c_str()), "nor to the hash");
  if (isOrdinary(name)) checkGuard(name);
  return 0;
}
