// Converts a DHCP client's report of its lease to the texts of the two files that the daemon reads.
//
// The values come from any machine that answers DHCP on the network. This code trusts no value. A
// URL is cut to its first line without control characters and to the length of one option, and is
// quoted for shells. A name is kept only if it is a valid name.
#pragma once

#include <string>
#include <string_view>

namespace netservice {

/// The form in which a client passes a value.
enum class LeaseEncoding {
  plain,    ///< the bytes as they came
  escaped,  ///< a backslash before a character, or before three octal digits, in all values
  hex,      ///< two hexadecimal digits a byte, only in the URL
};

/// A lease's values as a client gave them.
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

/// The lease file: `interface`, `domain` (its first name) and `wpad`, each 'in shell quotes' on a
/// line of its own. Without values the quotes are empty.
std::string leaseText(LeaseEncoding encoding, const LeaseValues& values);

/// The resolver file: one line "search " with the names of the search list. If the list is empty,
/// the names of the domain. Empty if neither has a name.
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
