// The plain records with which the folders pass a proxy configuration or a parsed proxy entry to
// each other, and the free functions that make, copy and release these records.
//
// A record holds integers and heap C strings. The holder of the record owns its strings:
// string2Char() allocates them (malloc) and the cleanup functions free them (free). Copying a
// record by value shares the pointers; cloneProxyConfig makes a deep copy. Every function is safe
// on any thread, as long as no two threads use the same record. Each function logs one line
// (LOG_INFO) when it is called, except string2Char(), which logs only a refusal. The functions do
// not check whether an allocation failed. Pointers to records are never null. The classes in
// service/records/proxy_config_owner.h free a record's strings at the end of a scope, without a log
// line.
#pragma once

#include <cstdint>
#include <type_traits>
#include <vector>

/// How proxies are chosen. Text forms: "off", "manual", "pacurl", "wpad".
enum ProxyMode : std::int32_t { off = 0, manual = 1, pacurl = 2, wpad = 3 };

/// The proxy configuration. A null string is a value that is not set.
struct ProxyConfig {
  ProxyMode mode = off;
  char* proxyurl = nullptr;  ///< owned; the proxy of mode manual
  char* pacurl = nullptr;    ///< owned; the location of the script of mode pacurl
  bool enableauth = false;   ///< whether userName and password apply
  char* userName = nullptr;  ///< owned
  char* password = nullptr;  ///< owned
};

/// One parsed proxy entry.
struct ProxyUrlSetting {
  std::int32_t type = 0;  ///< 0 none (not recognised), 1 DIRECT, 2 PROXY, 3 SOCKS
  char* url = nullptr;    ///< owned; the whole entry text, for example "PROXY 10.0.0.1:8080"
};

/// The entries of one answer, in the script's order. Copies share the `url` pointers. Each cache
/// hit copies the list. The type is a vector, because an answer has only a few entries of 16 bytes.
/// For three entries, a copy of a vector needs one allocation. A copy of a linked list would need
/// three allocations and three times the time.
using ProxyUrlSettings = std::vector<ProxyUrlSetting>;

/// A list of URLs. No code of the daemon fills such a list; the type completes the set of records.
struct ProxyUrlInfo {
  std::int32_t kind = 0;
  char** urls = nullptr;   ///< owned array of `urlCount` owned strings, each possibly null
  char* extraA = nullptr;  ///< owned
  char* extraB = nullptr;  ///< owned
  std::int32_t urlCount = 0;
};

static_assert(std::is_trivially_copyable_v<ProxyConfig> && std::is_standard_layout_v<ProxyConfig>);
static_assert(std::is_trivially_copyable_v<ProxyUrlSetting> &&
              std::is_standard_layout_v<ProxyUrlSetting>);
static_assert(std::is_trivially_copyable_v<ProxyUrlInfo> &&
              std::is_standard_layout_v<ProxyUrlInfo>);
static_assert(sizeof(ProxyConfig::enableauth) == 1, "enableauth is an 8-bit boolean");

/// Makes `config` a fresh record: mode off, no strings, no authentication. Frees nothing.
void initProxyConfig(ProxyConfig* config);

/// Overwrites and frees the record's strings and sets them to null; `mode` and `enableauth` stay.
void cleanupProxyConfig(ProxyConfig* config);

/// Copies `srcConfig` deeply into `destConfig`. `destConfig` is new or cleaned: its strings are not
/// freed. A null source string leaves the destination's string unchanged; an empty source string
/// sets the destination's string to null. Null records are a mistake of the caller: the function
/// logs a LOG_ERR line, and then crashes.
void cloneProxyConfig(const ProxyConfig* srcConfig, ProxyConfig* destConfig);

/// Makes `info` a fresh record with `count` empty slots. If `count` <= 0, there is no slot and no
/// array.
void initProxyUrlInfo(ProxyUrlInfo* info, std::int32_t kind, std::int32_t count);

/// Frees everything that the record owns, and sets the record to zero. An array with `urlCount` <=
/// 0 is not freed.
void cleanupProxyUrlInfo(ProxyUrlInfo* info);

/// Frees the entry's url, and sets the url to null and the type to 0.
void cleanupProxySetting(ProxyUrlSetting* setting);

/// @param text not null; letter case is ignored
/// @return the mode of that text; off, without a warning, for any other text
ProxyMode str2ProxyMode(const char* text);

/// @return the mode's text, a constant. For an invalid number, the text is "off", and there is a
/// LOG_ERR line
const char* proxyMode2Str(ProxyMode mode);

/// Copies `length` bytes of `data`, including zeros, and adds a terminator.
/// @return a malloc'ed string that the caller frees; null, with a LOG_INFO line, if `data` is null
///         or `length` <= 0: an empty text is stored as null
char* string2Char(const char* data, std::int32_t length);
