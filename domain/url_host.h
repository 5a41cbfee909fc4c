// The host of a URL: what the script is asked for and what its answers are kept under.
#pragma once

#include <string>

/// Splits at "://", "/" and ":", on purpose no more than that: user information and bracketed
/// addresses are not recognised, the scheme is not looked at, letter case is kept. A text without
/// "://" is the host as a whole.
/// @return the host, malloc'ed, for the caller to free; null if it is empty.
/// Any thread; logs one or two lines at LOG_INFO, and string2Char()'s line for an empty host.
char* getHost(const std::string& url);
