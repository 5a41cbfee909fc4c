#include "domain/tld.h"

#include <cstring>
#include <string_view>

#include "base/ascii.h"
#include "base/log_line.h"
#include "domain/tld_hash.h"
#include "domain/tld_table.h"

namespace {

bool equalsFolded(const char* a, const char* b) {
  for (; base::lowerCase(*a) == base::lowerCase(*b); ++a, ++b)
    if (*a == '\0') return true;
  return false;
}

/// `scratch` is a buffer for the name with its markers. Several calls use the same buffer, so that
/// memory is allocated only once.
int isEffective(const char* name, std::size_t length, std::string& scratch) {
  logLine(LOG_INFO, "isEffectiveTld called ");
  if (const int plain = isInTldArray(name)) return plain;
  const auto* const dot = static_cast<const char*>(std::memchr(name, '.', length));
  if (!dot) return 0;
  // A wildcard rule has a dot after "*", and this text has none. So no ordinary name matches. This
  // is intended.
  scratch.assign(1, '*').append(dot + 1, name + length);
  if (isInTldArray(scratch.c_str()) == 0) return 0;
  scratch.assign(1, '!').append(name, length);
  return isInTldArray(scratch.c_str());
}

}  // namespace

unsigned tldhash(const char* text) {
  const std::string_view input(text);
  logLine(LOG_INFO, "tldhash input:%s, len:%d", text, static_cast<int>(input.size()));
  return domain::tldHashOf(input) % domain::kTldBuckets;
}

int isInTldArray(const char* text) {
  logLine(LOG_INFO, "isInTldArray called ");
  const unsigned index = tldhash(text);
  std::size_t current = domain::kTldBucketStart[index];
  const std::size_t end = domain::kTldBucketStart[index + 1];
  logLine(LOG_INFO, "isInTldArray index:%d, currentIndex:%d", static_cast<int>(index),
          static_cast<int>(current));
  while (current < end) {
    const char* const rule = domain::kTldRules + current;
    logLine(LOG_INFO, "isInTldArray currentTLD:%s", rule);
    if (equalsFolded(rule, text)) return 1;
    current += std::strlen(rule) + 1;
  }
  return 0;
}

int isEffectiveTld(const std::string& name) {
  std::string scratch;
  return isEffective(name.c_str(), name.size(), scratch);
}

std::string topLevelDomain(const std::string& domain) {
  // The trailing dots are removed first, then each suffix of the rest is tested. With a trailing
  // dot, the last label would be empty, and no suffix would be found.
  std::string text = domain;
  std::string scratch;
  std::string_view result;
  while (!text.empty() && text.back() == '.') {
    text.pop_back();
    isEffective("", 0, scratch);
  }
  for (std::size_t end = text.size(); end > 0;) {
    const std::size_t dot = text.rfind('.', end - 1);
    const std::size_t begin = dot == std::string::npos ? 0 : dot + 1;
    const std::string_view suffix = std::string_view(text).substr(begin);
    if (isEffective(suffix.data(), suffix.size(), scratch) != 0) result = suffix;
    if (dot == std::string::npos) break;
    end = dot;
  }
  std::string tld(result);
  logLine(LOG_INFO, "topLevelDomain domain:%s, tld:%s", domain.c_str(), tld.c_str());
  return tld;
}
