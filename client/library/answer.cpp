#include "client/library/answer.h"

namespace {

proxymanager_kind kindOf(client::ProxyKind kind) {
  switch (kind) {
    case client::ProxyKind::kDirect:
      return PROXYMANAGER_DIRECT;
    case client::ProxyKind::kHttp:
      return PROXYMANAGER_HTTP;
    case client::ProxyKind::kHttps:
      return PROXYMANAGER_HTTPS;
    case client::ProxyKind::kSocks4:
      return PROXYMANAGER_SOCKS4;
    case client::ProxyKind::kSocks4a:
      return PROXYMANAGER_SOCKS4A;
    case client::ProxyKind::kSocks5:
      return PROXYMANAGER_SOCKS5;
    case client::ProxyKind::kSocks5h:
      return PROXYMANAGER_SOCKS5H;
    case client::ProxyKind::kUnusable:
      break;
  }
  return PROXYMANAGER_UNUSABLE;
}

std::string urlOf(const client::ProxyEntry& entry) {
  return entry.kind == client::ProxyKind::kDirect ? "direct://" : proxyUrl(entry);
}

}  // namespace

proxymanager_answer::proxymanager_answer(client::ProxyAnswer parsed) : mParsed(std::move(parsed)) {
  mUrls.reserve(mParsed.entries.size());
  mEntries.reserve(mParsed.entries.size());
  for (const auto& entry : mParsed.entries) {
    mUrls.push_back(urlOf(entry));
    const bool isUsable = entry.kind != client::ProxyKind::kUnusable;
    // The result of kindName() ends with a NUL.
    mEntries.push_back({kindOf(entry.kind), entry.text.c_str(), mUrls.back().c_str(),
                        isUsable ? kindName(entry.kind).data() : "", entry.credentials.c_str(),
                        entry.host.c_str(), entry.port});
  }
}

void proxymanager_answer::give() {
  // The thread that deletes the answer must see all changes by the other threads.
  if (mHolders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

std::size_t proxymanager_answer::bytes() const {
  std::size_t bytes = sizeof *this + mParsed.mode.capacity();
  for (const auto& entry : mParsed.entries) {
    bytes += sizeof entry + sizeof(std::string) + sizeof(proxymanager_entry);
    bytes += entry.text.capacity() + entry.credentials.capacity() + entry.host.capacity();
  }
  for (const auto& url : mUrls) bytes += url.capacity();
  return bytes;
}
