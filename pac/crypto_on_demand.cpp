// libcrypto, mapped at the first call: for the digest of the first script.
//
// If the library is missing, MD5_Init returns 0, and so do the other two until it succeeds.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <atomic>
#include <cstddef>

#include "base/library_on_demand.h"

namespace {

static_assert(OPENSSL_VERSION_MAJOR == 3);

struct Functions {
  decltype(&::MD5_Init) init;
  decltype(&::MD5_Update) update;
  decltype(&::MD5_Final) final;
};

using on_demand::find;

bool findAll(void* library, Functions& found) {
  return find(library, "MD5_Init", found.init) && find(library, "MD5_Update", found.update) &&
         find(library, "MD5_Final", found.final);
}

// The functions that MD5_Init has found; null before that, and while the library is missing.
std::atomic<const Functions*> found{nullptr};

}  // namespace

extern "C" {

// Only this function looks the others up. So the library makes all steps of a digest, or none, even
// if the library becomes available between two steps.
int MD5_Init(MD5_CTX* context) {
  static on_demand::Library<Functions> library("libcrypto.so.3", findAll);
  found = library.functions();
  return found != nullptr ? found.load()->init(context) : 0;
}

int MD5_Update(MD5_CTX* context, const void* data, std::size_t length) {
  return found != nullptr ? found.load()->update(context, data, length) : 0;
}

int MD5_Final(unsigned char* digest, MD5_CTX* context) {
  return found != nullptr ? found.load()->final(digest, context) : 0;
}

}  // extern "C"
