// libcurl when it is first called: at the first download, or the first URL that is cleaned for a
// script. With it come thirty libraries, for TLS, directories, single sign-on and more.
//
// Without it, or with one that lacks a function, every function gives what it gives without memory:
// the download fails, and no URL can be cleaned.
#include <curl/curl.h>

#include <cstdarg>

#include "base/library_on_demand.h"

namespace {

struct Functions {
  decltype(&::curl_global_init) globalInit;
  decltype(&::curl_easy_init) easyInit;
  decltype(&::curl_easy_setopt) easySetopt;
  decltype(&::curl_easy_perform) easyPerform;
  decltype(&::curl_easy_getinfo) easyGetinfo;
  decltype(&::curl_easy_cleanup) easyCleanup;
  decltype(&::curl_url) url;
  decltype(&::curl_url_set) urlSet;
  decltype(&::curl_url_get) urlGet;
  decltype(&::curl_url_cleanup) urlCleanup;
  decltype(&::curl_free) free;
};

template <typename Result, typename First, typename... Others>
First firstArgument(Result (*)(First, Others...));

// Later releases take a pointer to const.
using ReadUrl = decltype(firstArgument(&::curl_url_get));

using on_demand::find;

bool findAll(void* library, Functions& found) {
  return find(library, "curl_global_init", found.globalInit) &&
         find(library, "curl_easy_init", found.easyInit) &&
         find(library, "curl_easy_setopt", found.easySetopt) &&
         find(library, "curl_easy_perform", found.easyPerform) &&
         find(library, "curl_easy_getinfo", found.easyGetinfo) &&
         find(library, "curl_easy_cleanup", found.easyCleanup) &&
         find(library, "curl_url", found.url) && find(library, "curl_url_set", found.urlSet) &&
         find(library, "curl_url_get", found.urlGet) &&
         find(library, "curl_url_cleanup", found.urlCleanup) &&
         find(library, "curl_free", found.free);
}

const Functions* curl() {
  static on_demand::Library<Functions> library("libcurl.so.4", findAll);
  return library.functions();
}

}  // namespace

extern "C" {

CURLcode curl_global_init(long flags) {
  return curl() ? curl()->globalInit(flags) : CURLE_FAILED_INIT;
}

CURL* curl_easy_init() {
  return curl() ? curl()->easyInit() : nullptr;
}

// The two functions are declared so by the library: an enumeration of unsigned int comes last,
// which is passed as it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"

// A handle is there only where the library is. Each option of this tree is a long or a pointer, and
// both fit in a pointer; none is a curl_off_t.
CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  static_assert(sizeof(long) == sizeof(void*));
  va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);
  va_end(arguments);
  return curl()->easySetopt(handle, option, value);
}

CURLcode curl_easy_perform(CURL* handle) {
  return curl()->easyPerform(handle);
}

CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  va_list arguments;
  va_start(arguments, info);
  void* const value = va_arg(arguments, void*);
  va_end(arguments);
  return curl()->easyGetinfo(handle, info, value);
}

#pragma GCC diagnostic pop

void curl_easy_cleanup(CURL* handle) {
  if (curl()) curl()->easyCleanup(handle);
}

CURLU* curl_url() {
  return curl() ? curl()->url() : nullptr;
}

CURLUcode curl_url_set(CURLU* handle, CURLUPart what, const char* part, unsigned flags) {
  return curl()->urlSet(handle, what, part, flags);
}

CURLUcode curl_url_get(ReadUrl handle, CURLUPart what, char** part, unsigned flags) {
  return curl()->urlGet(handle, what, part, flags);
}

void curl_url_cleanup(CURLU* handle) {
  if (curl()) curl()->urlCleanup(handle);
}

void curl_free(void* text) {
  if (curl()) curl()->free(text);
}

}  // extern "C"
