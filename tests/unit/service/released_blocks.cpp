// These operators have their own file. Otherwise the compiler would see that operator new calls
// malloc, and would warn of a mismatch.
#include "tests/unit/service/released_blocks.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<const char*> watched{nullptr};
std::atomic<int> released{0};
std::atomic<int> withText{0};

}  // namespace

void watchReleasedBlocks(const char* text) {
  watched = text;
}

int releasedBlocks() {
  return released;
}

int releasedBlocksWithText() {
  return withText;
}

// Memory that libdbus (in C) releases does not pass through these functions.
void* operator new(std::size_t size) {
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  const char* const text = watched;
  if (memory != nullptr && text != nullptr) {
    ++released;
    if (memmem(memory, malloc_usable_size(memory), text, std::strlen(text)) != nullptr) ++withText;
  }
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}
