// The host of a URL. The script gets the host as its second argument, and the host is the cache's
// key.
#pragma once

#include <string>

/// Finds the host only by "://", "/" and ":". This is on purpose: user information and bracketed
/// addresses are not recognised, any scheme is accepted, and letter case is kept. If the text has
/// no "://", the whole text is the host.
/// @return the host, allocated with malloc; the caller frees it. Null if the host is empty.
/// Any thread; logs one or two lines at LOG_INFO, and string2Char()'s line for an empty host.
char* getHost(const std::string& url);
