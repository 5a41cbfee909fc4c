// libidn2, mapped at the first name with characters beyond ASCII, because many programs never see
// such a name.
//
// If the library is missing, a conversion fails with IDN2_MALLOC.
#include <idn2.h>

#include <atomic>

#include "base/library_on_demand.h"

namespace {

struct Functions {
  decltype(&::idn2_to_ascii_8z) toAscii;
  decltype(&::idn2_free) free;
};

using on_demand::find;

bool findAll(void* library, Functions& found) {
  return find(library, "idn2_to_ascii_8z", found.toAscii) && find(library, "idn2_free", found.free);
}

// The functions of the library. Null until idn2_to_ascii_8z() has found them.
std::atomic<const Functions*> found{nullptr};

}  // namespace

extern "C" {

int idn2_to_ascii_8z(const char* name, char** ascii, int flags) {
  static on_demand::Library<Functions> library("libidn2.so.0", findAll);
  const Functions* const functions = library.functions();
  if (functions == nullptr) return IDN2_MALLOC;
  found = functions;
  return functions->toAscii(name, ascii, flags);
}

// A smart pointer that has no object also calls this function, with a null pointer.
void idn2_free(void* text) {
  if (text != nullptr) found.load()->free(text);
}

}  // extern "C"
