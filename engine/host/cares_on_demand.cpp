// c-ares, mapped at the first lookup of a name, because many programs never look up a name.
//
// If the library is missing, ares_init_options() fails with ARES_ENOTINITIALIZED. Then there is no
// channel, so ares_strerror() must work without the library.
#include <ares.h>

#include <atomic>

#include "base/library_on_demand.h"

namespace {

static_assert(ARES_VERSION_MAJOR == 1);

struct Functions {
  decltype(&::ares_cancel) cancel;
  decltype(&::ares_destroy) destroy;
  decltype(&::ares_freeaddrinfo) freeAddrInfo;
  decltype(&::ares_getaddrinfo) getAddrInfo;
  decltype(&::ares_getsock) getSock;
  decltype(&::ares_init_options) initOptions;
  decltype(&::ares_process_fd) processFd;
  decltype(&::ares_set_servers_ports_csv) setServers;
  decltype(&::ares_strerror) strError;
  decltype(&::ares_timeout) timeOut;
};

using on_demand::find;

bool findAll(void* library, Functions& found) {
  return find(library, "ares_cancel", found.cancel) &&
         find(library, "ares_destroy", found.destroy) &&
         find(library, "ares_freeaddrinfo", found.freeAddrInfo) &&
         find(library, "ares_getaddrinfo", found.getAddrInfo) &&
         find(library, "ares_getsock", found.getSock) &&
         find(library, "ares_init_options", found.initOptions) &&
         find(library, "ares_process_fd", found.processFd) &&
         find(library, "ares_set_servers_ports_csv", found.setServers) &&
         find(library, "ares_strerror", found.strError) &&
         find(library, "ares_timeout", found.timeOut);
}

// The functions of the library. Null until ares_init_options() has found them.
std::atomic<const Functions*> found{nullptr};

}  // namespace

extern "C" {

// Only this function searches the library for its functions. So if a channel exists, all functions
// have been found.
int ares_init_options(ares_channel* channel, struct ares_options* options, int mask) {
  static on_demand::Library<Functions> library("libcares.so.2", findAll);
  const Functions* const functions = library.functions();
  if (functions == nullptr) return ARES_ENOTINITIALIZED;
  found = functions;
  return functions->initOptions(channel, options, mask);
}

const char* ares_strerror(int code) {
  const Functions* const functions = found;
  return functions != nullptr ? functions->strError(code) : "the library is missing";
}

void ares_cancel(ares_channel channel) {
  found.load()->cancel(channel);
}

void ares_destroy(ares_channel channel) {
  found.load()->destroy(channel);
}

// A smart pointer that has no object also calls this function, with a null pointer.
void ares_freeaddrinfo(struct ares_addrinfo* answer) {
  if (answer != nullptr) found.load()->freeAddrInfo(answer);
}

void ares_getaddrinfo(ares_channel channel, const char* name, const char* service,
                      const struct ares_addrinfo_hints* hints, ares_addrinfo_callback callback,
                      void* context) {
  found.load()->getAddrInfo(channel, name, service, hints, callback, context);
}

int ares_getsock(ares_channel channel, ares_socket_t* sockets, int count) {
  return found.load()->getSock(channel, sockets, count);
}

void ares_process_fd(ares_channel channel, ares_socket_t readable, ares_socket_t writable) {
  found.load()->processFd(channel, readable, writable);
}

int ares_set_servers_ports_csv(ares_channel channel, const char* servers) {
  return found.load()->setServers(channel, servers);
}

struct timeval* ares_timeout(ares_channel channel, struct timeval* longest,
                             struct timeval* chosen) {
  return found.load()->timeOut(channel, longest, chosen);
}

}  // extern "C"
