#include "pac/pac_result.h"

#include <algorithm>
#include <string_view>

#include "base/log_line.h"
#include "service/records/owned_settings.h"

namespace script_result {

namespace {

enum EntryType : std::int32_t { kNone = 0, kDirect = 1, kProxy = 2, kSocks = 3 };

char* heapText(const std::string& text) {
  return string2Char(text.data(), static_cast<std::int32_t>(text.size()));
}

// Adds an empty entry to the list first: if that allocation fails, there is no text yet that could
// be lost.
// @return the entry, or null if the piece is not an entry
const ProxyUrlSetting* append(ProxyUrlSettings& settings, const std::string& piece) {
  settings.emplace_back();
  settings.back() = entryOf(piece);
  if (settings.back().type != kNone) return &settings.back();
  settings.pop_back();
  return nullptr;
}

}  // namespace

ProxyUrlSettings entriesOf(const std::string& proxys) {
  logLine(LOG_NOTICE, "PacParser-proxys2ProxySettings proxys:%s", proxys.c_str());
  OwnedSettings held;
  auto& settings = held.get();
  std::size_t begin = 0;
  int pieces = 0;
  for (auto end = proxys.find(';'); end != std::string::npos; end = proxys.find(';', begin)) {
    if (pieces++ == kMaxResultPieces) break;
    const std::string piece = proxys.substr(begin, end - begin);
    begin = end + 1;
    if (const auto* entry = append(settings, piece)) {
      logLine(LOG_INFO, "PacParser-proxys2ProxySettings proxyStr:%s  proxy type:%d, url:%s",
              piece.c_str(), entry->type, entry->url);
    }
  }
  if (begin == proxys.size()) return held.release();
  if (pieces >= kMaxResultPieces) {
    logLine(LOG_WARNING,
            "PacParser-proxys2ProxySettings more than 64 entries, the rest is dropped");
    return held.release();
  }
  const std::string rest = proxys.substr(begin);
  if (const auto* entry = append(settings, rest)) {
    logLine(LOG_INFO, "PacParser-proxys2ProxySettings subString:%s proxy type:%d, url:%s",
            rest.c_str(), entry->type, entry->url);
  }
  return held.release();
}

ProxyUrlSetting entryOf(std::string proxy) {
  logLine(LOG_INFO, "PacParser-proxy2ProxySetting proxy:%s", proxy.c_str());
  proxy.erase(0, std::min(proxy.find_first_not_of(" \t"), proxy.size()));
  ProxyUrlSetting setting{kNone, nullptr};
  if (proxy == "DIRECT") {
    setting = {kDirect, heapText(proxy)};
    return setting;
  }
  const auto blank = proxy.find(' ');
  if (blank == std::string::npos) return setting;
  const auto keyword = std::string_view(proxy).substr(0, blank);
  if (keyword == "PROXY") {
    setting = {kProxy, heapText(proxy)};
    logLine(LOG_INFO, "PacParser-proxy2ProxySetting type proxy, url:%s", setting.url);
  } else if (keyword == "SOCKS") {
    setting = {kSocks, heapText(proxy)};
    logLine(LOG_INFO, "PacParser-proxy2ProxySetting type socks, url:%s", setting.url);
  }
  return setting;
}

}  // namespace script_result
