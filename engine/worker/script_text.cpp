#include "engine/worker/script_text.h"

#include <cstddef>

#include "base/ascii.h"
#include "base/utf8.h"

namespace pac_worker {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string fromLatin1(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    if (base::isAscii(c)) {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text += static_cast<char>(0xC0U | (byte >> 6U));
      text += static_cast<char>(0x80U | (byte & 0x3FU));
    }
  }
  return text;
}

void unifyLineEnds(std::string& text) {
  std::size_t out = 0;
  for (std::size_t in = 0; in < text.size(); ++in) {
    if (text[in] != '\r') {
      text[out++] = text[in];
    } else if (in + 1 == text.size() || text[in + 1] != '\n') {
      text[out++] = '\n';
    }
  }
  text.resize(out);
}

}  // namespace

std::string decodeScript(std::string_view bytes) {
  bytes = bytes.substr(0, bytes.find('\0'));
  std::string text;
  if (!base::isUtf8(bytes)) {
    text = fromLatin1(bytes);
  } else {
    if (bytes.starts_with(kByteOrderMark)) bytes.remove_prefix(kByteOrderMark.size());
    text = bytes;
  }
  unifyLineEnds(text);
  return text;
}

}  // namespace pac_worker
