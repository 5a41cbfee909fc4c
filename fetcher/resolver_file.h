// The network's domain or search list, as the device's DNS forwarder writes it.
#pragma once

#include <string>
#include <string_view>

namespace fetcher {

/// Implements PACFetcher::getDomainName. Any thread. Throws std::bad_alloc.
std::string domainOfResolverFile();

/// The domain or search list of a resolver file: the text after the first blank in the last line
/// that contains "search " or "domain ".
/// @param text the whole file, any bytes
/// @return a domain, or several domains with blanks between them; empty if no line has one of the
/// keywords
std::string domainOfResolverText(std::string_view text);

}  // namespace fetcher
