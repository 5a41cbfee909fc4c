// The plain records that carry a proxy configuration and a parsed proxy entry between the folders,
// and the free functions that make, copy and release them.
//
// A record holds integers and heap C strings. Whoever holds the record owns its strings: they come
// from string2Char (malloc) and go with the cleanup functions (free). Copying a record by value
// shares the pointers; cloneProxyConfig makes a deep copy. Every function is safe on any thread, as
// long as no two threads use the same record, and says one line to syslog (LOG_INFO) when called.
// Allocation failure is not checked.
#pragma once

#include <cstdint>
#include <type_traits>
#include <vector>

/// How proxies are chosen. Text forms: "off", "manual", "pacurl", "wpad".
enum ProxyMode : std::int32_t { off = 0, manual = 1, pacurl = 2, wpad = 3 };
