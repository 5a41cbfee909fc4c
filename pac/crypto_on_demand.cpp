// libcrypto when it is first called: at the first script, whose digest tells whether it is new.
//
// Without it every script is given a digest that no other has, and counts as new.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <cstdint>
#include <cstring>

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

const Functions* crypto() {
  static on_demand::Library<Functions> library("libcrypto.so.3", findAll);
  return library.functions();
}

// No byte of it is 0, at which a digest's text would end. Scripts are read by one thread at a time.
void digestOfItsOwn(unsigned char* digest) {
  static std::uint32_t scripts = 0;
  const auto number = scripts++;
  std::memset(digest, 1, MD5_DIGEST_LENGTH);
  for (unsigned i = 0; i < 8; ++i)
    digest[i] = static_cast<unsigned char>(1 + (number >> 4 * i) % 16);
}

}  // namespace

extern "C" {

int MD5_Init(MD5_CTX* context) {
  return crypto() ? crypto()->init(context) : 0;
}

int MD5_Update(MD5_CTX* context, const void* data, std::size_t length) {
  return crypto() ? crypto()->update(context, data, length) : 0;
}

int MD5_Final(unsigned char* digest, MD5_CTX* context) {
  if (crypto()) return crypto()->final(digest, context);
  digestOfItsOwn(digest);
  return 0;
}

}  // extern "C"
