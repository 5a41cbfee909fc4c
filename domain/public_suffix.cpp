#include "domain/public_suffix.h"

#include <libpsl.h>

#include <string_view>

#include "base/ascii.h"
#include "domain/tld_hash.h"
#include "domain/tld_table.h"

namespace {

/// Whether the table has the rule `marker` + `name`, in lower case.
bool holdsRule(std::string_view marker, std::string_view name) {
  const auto bucket = domain::tldHashOf(name, domain::tldHashOf(marker)) % domain::kTldBuckets;
  const std::size_t end = domain::kTldBucketStart[bucket + 1];
  for (std::size_t at = domain::kTldBucketStart[bucket]; at < end;) {
    const std::string_view rule(domain::kTldRules + at);
    if (rule.size() == marker.size() + name.size() && rule.starts_with(marker) &&
        rule.ends_with(name))
      return true;
    at += rule.size() + 1;
  }
  return false;
}

bool isBuiltInSuffix(std::string_view name) {
  if (holdsRule("!", name)) return false;
  if (holdsRule("", name) || holdsRule("*.", name)) return true;
  const auto dot = name.find('.');
  return dot != 0 && dot != std::string_view::npos && holdsRule("*", name.substr(dot));
}

bool isCurrentSuffix(const std::string& name) {
  // A constant of the library, never freed. If it is null, libpsl answers that every name is a
  // public suffix, so the search through the domains stops.
  const psl_ctx_t* const current = psl_builtin();
  return psl_is_public_suffix2(current, name.c_str(), PSL_TYPE_ANY | PSL_TYPE_NO_STAR_RULE) != 0;
}

}  // namespace

bool isPublicSuffix(const std::string& name) {
  std::string seen = base::lowerCase(std::string_view(name).substr(0, name.find('\0')));
  seen.erase(seen.find_last_not_of('.') + 1);
  if (seen.empty()) return false;
  return isBuiltInSuffix(seen) || (seen.find('.') != std::string::npos && isCurrentSuffix(seen));
}
