// The text of the resolver file, apart from where it is read from.
#pragma once

#include <string>
#include <string_view>

namespace fetcher {

/// The domain or search list of a resolver file: what follows the first blank in the last line that
/// holds "search " or "domain " anywhere.
/// @param text the whole file, any bytes
/// @return a domain, or several with blanks between; empty where no line has either keyword
std::string domainOfResolverText(std::string_view text);

}  // namespace fetcher
