#include "dbus/last_reply.h"

#include <new>

namespace {

bool isSmall(const std::vector<std::string>& texts) {
  std::size_t bytes = 0;
  for (const auto& text : texts) bytes += text.size();
  return texts.size() <= LastReply::kMaxTexts && bytes <= LastReply::kMaxBytes;
}

}  // namespace

std::optional<DBus::Message> LastReply::again(const char* caller, int serial,
                                              const std::vector<std::string>& texts) const {
  if (!mKept || caller == nullptr || mKept->caller != caller || mKept->texts != texts) {
    return std::nullopt;
  }
  // Its own member function is not const, and changes nothing.
  auto reply = DBus::Message(mKept->reply).copy();
  if (!reply.reply_serial(serial)) return std::nullopt;  // no memory
  return reply;
}

void LastReply::keep(const char* caller, const std::vector<std::string>& texts,
                     const DBus::Message& reply) {
  mKept.reset();
  if (caller == nullptr || !isSmall(texts)) return;
  try {
    mKept.emplace(Kept{caller, texts, reply});
  } catch (const std::bad_alloc&) {
    // The reply itself is there, and is worth more than the next one's haste.
  }
}
