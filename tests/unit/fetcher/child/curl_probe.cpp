#include "tests/unit/fetcher/child/curl_probe.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>

namespace {

// Downloads of these tests run on one thread at a time.
std::vector<CurlOption>& options() {
  static auto& instance = *new std::vector<CurlOption>;
  return instance;
}
std::atomic<int> transfers{0};

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

std::vector<CurlOption> curlOptions() {
  return options();
}
int curlTransfers() {
  return transfers;
}

// curl's own header is not included here, because it defines macros with these names.
extern "C" {
int curl_easy_setopt(void* handle, int option, ...);
int curl_easy_perform(void* handle);

int curl_easy_setopt(void* handle, int option, ...) {
  va_list arguments;
  va_start(arguments, option);
  const long value = va_arg(arguments, long);  // all options in use are a long or a pointer
  va_end(arguments);
  options().push_back({option, value});
  return real<int(void*, int, ...)>("curl_easy_setopt")(handle, option, value);
}

int curl_easy_perform(void* handle) {
  ++transfers;
  return real<int(void*)>("curl_easy_perform")(handle);
}
}
