// Removes secrets from memory before the memory is released.
#pragma once

#include <cstring>
#include <string>

namespace base {

/// Overwrites `size` bytes in a way that the compiler does not optimise away. Null is accepted.
inline void wipe(void* bytes, std::size_t size) noexcept {
  if (bytes != nullptr) explicit_bzero(bytes, size);
}

/// Overwrites a C string up to its terminator; null is accepted. Does not free the string.
inline void wipe(char* text) noexcept {
  if (text != nullptr) wipe(text, std::strlen(text));
}

/// Overwrites the whole capacity of `text`, and empties it. When `text` grew or was moved, it may
/// have left copies in memory. These copies are not overwritten.
inline void wipe(std::string& text) noexcept {
  text.resize(text.capacity());  // also wipes the part after the end; allocates nothing
  wipe(text.data(), text.size());
  text.clear();
}

/// Wipes `text` when this object's scope ends. `text` must outlive the object.
class WipedAtEnd {
 public:
  explicit WipedAtEnd(std::string& text) : mText(text) {}
  WipedAtEnd(const WipedAtEnd&) = delete;
  WipedAtEnd& operator=(const WipedAtEnd&) = delete;
  ~WipedAtEnd() { wipe(mText); }

 private:
  std::string& mText;
};

}  // namespace base
