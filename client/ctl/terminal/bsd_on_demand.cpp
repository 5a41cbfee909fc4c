// Maps libbsd when the program asks for a password at the terminal.
//
// If the library is missing, the function fails as if there were no terminal (ENOTTY).
#include <bsd/readpassphrase.h>

#include <cerrno>

#include "base/library_on_demand.h"

namespace {

struct Functions {
  decltype(&::readpassphrase) read;
};

bool findAll(void* library, Functions& found) {
  return on_demand::find(library, "readpassphrase", found.read);
}

}  // namespace

extern "C" {

char* readpassphrase(const char* prompt, char* text, std::size_t size, int flags) {
  static on_demand::Library<Functions> library("libbsd.so.0", findAll);
  const Functions* const functions = library.functions();
  if (functions == nullptr) {
    errno = ENOTTY;
    return nullptr;
  }
  return functions->read(prompt, text, size, flags);
}

}  // extern "C"
