#include "service/records/proxy_config.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/ascii.h"
#include "base/log_line.h"
#include "base/wipe.h"

namespace {

template <typename T>
void freeAndNull(T*& owned) {
  std::free(owned);
  owned = nullptr;
}

// URLs are wiped, too, because a URL may contain a password.
void wipeAndFree(char*& owned) {
  base::wipe(owned);
  freeAndNull(owned);
}

void cloneText(const char* source, char*& destination) {
  if (source) destination = string2Char(source, static_cast<std::int32_t>(std::strlen(source)));
}

}  // namespace

void initProxyConfig(ProxyConfig* config) {
  logLine(LOG_INFO, "initProxyConfig() called");
  *config = ProxyConfig{};
}

void cleanupProxyConfig(ProxyConfig* config) {
  logLine(LOG_INFO, "cleanupProxyConfig() called");
  wipeAndFree(config->proxyurl);
  wipeAndFree(config->pacurl);
  wipeAndFree(config->userName);
  wipeAndFree(config->password);
}

void cloneProxyConfig(const ProxyConfig* srcConfig, ProxyConfig* destConfig) {
  logLine(LOG_INFO, "cloneProxyConfig() called");
  // The function must continue with the null pointer: the crash then shows the caller, and the log
  // shows the mistake.
  if (!srcConfig || !destConfig)
    logLine(LOG_ERR, "cloneProxyConfig srcConfig or destConfig is null");
  destConfig->mode = srcConfig->mode;
  destConfig->enableauth = srcConfig->enableauth;
  cloneText(srcConfig->proxyurl, destConfig->proxyurl);
  cloneText(srcConfig->pacurl, destConfig->pacurl);
  cloneText(srcConfig->userName, destConfig->userName);
  cloneText(srcConfig->password, destConfig->password);
}

void initProxyUrlInfo(ProxyUrlInfo* info, std::int32_t kind, std::int32_t count) {
  logLine(LOG_INFO, "initProxyUrlInfo() called");
  *info = ProxyUrlInfo{};
  info->kind = kind;
  info->urlCount = count;
  if (count <= 0) return;
  const auto slots = static_cast<std::size_t>(count);
  info->urls = static_cast<char**>(std::malloc(slots * sizeof(char*)));
  for (std::size_t i = 0; i < slots; ++i) info->urls[i] = nullptr;
}

void cleanupProxyUrlInfo(ProxyUrlInfo* info) {
  logLine(LOG_INFO, "cleanupProxyUrlInfo() called");
  info->kind = 0;
  if (info->urls && info->urlCount > 0) {
    for (std::int32_t i = 0; i < info->urlCount; ++i) freeAndNull(info->urls[i]);
    freeAndNull(info->urls);
  }
  freeAndNull(info->extraA);
  freeAndNull(info->extraB);
  info->urlCount = 0;
}

void cleanupProxySetting(ProxyUrlSetting* setting) {
  logLine(LOG_INFO, "cleanupProxySetting() called");
  setting->type = 0;
  freeAndNull(setting->url);
}

ProxyMode str2ProxyMode(const char* text) {
  // The log line contains the function's name instead of the text, because operators' filters
  // expect this line.
  logLine(LOG_INFO, "str2ProxyMode() called mode:str2ProxyMode");
  if (base::equalIgnoringCase(text, "off")) return off;
  if (base::equalIgnoringCase(text, "manual")) return manual;
  if (base::equalIgnoringCase(text, "pacurl")) return pacurl;
  if (base::equalIgnoringCase(text, "wpad")) return wpad;
  return off;
}

const char* proxyMode2Str(ProxyMode mode) {
  logLine(LOG_INFO, "proxyMode2Str: proxyMode2Str() called mode:%d", mode);
  switch (mode) {
    case off:
      logLine(LOG_INFO, "proxyMode2Str: str mode:off");
      return "off";
    case manual:
      logLine(LOG_INFO, "proxyMode2Str: str mode:manual");
      return "manual";
    case pacurl:
      logLine(LOG_INFO, "proxyMode2Str: str mode:pacurl");
      return "pacurl";
    case wpad:
      logLine(LOG_INFO, "proxyMode2Str: str mode:wpad");
      return "wpad";
  }
  logLine(LOG_ERR, "proxyMode2Str: mode:%d is invalid", mode);
  return "off";
}

char* string2Char(const char* data, std::int32_t length) {
  if (!data || length <= 0) {
    logLine(LOG_INFO, "string2Char: input is null, or length:%d <= 0", length);
    return nullptr;
  }
  const auto size = static_cast<std::size_t>(length);
  auto* const text = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(text, data, size);
  text[size] = '\0';
  return text;
}
