// Maps libpsl when the daemon checks the first name that may be a public suffix. The daemon checks
// names only in mode wpad.
//
// If the library is missing, psl_builtin() returns null, and then every name counts as a public
// suffix. libpsl gives the same answer if it has no list.
#include <libpsl.h>

#include <atomic>

#include "base/library_on_demand.h"

namespace {

struct Functions {
  decltype(&::psl_builtin) builtin;
  decltype(&::psl_is_public_suffix2) isPublicSuffix;
};

using on_demand::find;

bool findAll(void* library, Functions& found) {
  return find(library, "psl_builtin", found.builtin) &&
         find(library, "psl_is_public_suffix2", found.isPublicSuffix);
}

// The functions that psl_builtin() has found; null before its first call, and while the library is
// missing.
std::atomic<const Functions*> found{nullptr};

}  // namespace

extern "C" {

const psl_ctx_t* psl_builtin() {
  static on_demand::Library<Functions> library("libpsl.so.5", findAll);
  const Functions* const functions = library.functions();
  if (functions == nullptr) return nullptr;
  found = functions;
  return functions->builtin();
}

int psl_is_public_suffix2(const psl_ctx_t* list, const char* name, int type) {
  return list != nullptr ? found.load()->isPublicSuffix(list, name, type) : 1;
}

}  // extern "C"
