// Converts a DHCP client's report of its lease to the texts of the two files that the daemon reads.
//
// The values may come from any machine that answers DHCP on the network, so this code trusts no
// value. For a URL, only the first line is kept, without control characters, and cut at
// kLongestOption bytes. Then the URL is quoted for shells. A name is kept only if it is valid.
#pragma once

#include <string>
#include <string_view>

namespace netservice {

/// The form in which a client passes a value.
enum class LeaseEncoding {
  plain,    ///< the bytes as they came
  escaped,  ///< in all values, a backslash before a character or before three octal digits
  hex,      ///< two hexadecimal digits for each byte, only in the URL
};

/// A lease's values in the form in which a client passes them.
struct LeaseValues {
  std::string_view interface;
  std::string_view wpad;    ///< option 252
  std::string_view domain;  ///< option 15
  std::string_view search;  ///< option 119, names between blanks; empty if there was none
};

/// Maximum number of bytes of one option: its length is one byte (RFC 2132, section 2).
inline constexpr std::size_t kLongestOption = 255;
/// Maximum number of bytes of the names of a search list, blanks included. A longer list is cut at
/// a name.
inline constexpr std::size_t kLongestSearchList = 1024;

/// The text of the lease file: `interface`, `domain` (its first name) and `wpad`, each 'in shell
/// quotes' on a separate line. If a value is missing, its quotes are empty.
std::string leaseText(LeaseEncoding encoding, const LeaseValues& values);

/// The text of the resolver file: one line "search " with the names of the search list. If the list
/// is empty, the line has the names of the domain. If there are no names at all, the text is empty.
std::string resolverText(LeaseEncoding encoding, const LeaseValues& values);

/// The texts of the two files.
struct LeaseTexts {
  std::string lease;     ///< as leaseText() makes it
  std::string resolver;  ///< as resolverText() makes it
};

/// Both texts of a lease's values.
LeaseTexts leaseTexts(LeaseEncoding encoding, const LeaseValues& values);

/// Splits `joined` into both texts. `joined` has the lease's lines first, then the resolver's.
LeaseTexts leaseTextsOf(std::string_view joined);

/// Whether the text of a lease file is the lease of `interface`.
bool isLeaseOf(std::string_view text, std::string_view interface);

}  // namespace netservice
