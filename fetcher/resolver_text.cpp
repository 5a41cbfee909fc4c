#include "fetcher/resolver_text.h"

#include <algorithm>

std::string fetcher::domainOfResolverText(std::string_view text) {
  std::string_view domain;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const bool taken = line.find("search ") != line.npos || line.find("domain ") != line.npos;
    if (taken) domain = line.substr(line.find(' ') + 1);
  }
  return std::string(domain);
}
