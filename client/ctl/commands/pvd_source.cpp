#include "client/ctl/commands/pvd_source.h"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string_view>

#include "base/library_on_demand.h"
#include "base/small_file.h"
#include "client/ctl/commands/pvd_document.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/script_file.h"
#include "client/ctl/terminal/url_parts.h"

namespace client::pvd {

namespace {

// --- libcurl: loaded only here, so that all other commands start without it ---

struct Curl {
  decltype(&curl_easy_init) init = nullptr;
  decltype(&curl_easy_setopt) set = nullptr;
  decltype(&curl_easy_perform) perform = nullptr;
  decltype(&curl_easy_getinfo) get = nullptr;
  decltype(&curl_easy_strerror) textOf = nullptr;
  decltype(&curl_easy_cleanup) cleanup = nullptr;
  decltype(&curl_slist_append) append = nullptr;
  decltype(&curl_slist_free_all) freeAll = nullptr;
};

bool findAll(void* library, Curl& found) {
  using on_demand::find;
  return find(library, "curl_easy_init", found.init) &&
         find(library, "curl_easy_setopt", found.set) &&
         find(library, "curl_easy_perform", found.perform) &&
         find(library, "curl_easy_getinfo", found.get) &&
         find(library, "curl_easy_strerror", found.textOf) &&
         find(library, "curl_easy_cleanup", found.cleanup) &&
         find(library, "curl_slist_append", found.append) &&
         find(library, "curl_slist_free_all", found.freeAll);
}

const Curl& curl() {
  static on_demand::Library<Curl> library("libcurl.so.4", findAll);
  const auto* const functions = library.functions();
  if (functions == nullptr) throw Failure(kInternal, "the library libcurl is not there");
  return *functions;
}

std::size_t take(const char* bytes, std::size_t, std::size_t count, std::string* text) {
  if (text->size() + count > kMaxDocumentBytes) return 0;  // a short count ends the transfer
  text->append(bytes, count);
  return count;
}

/// One download with libcurl.
class Transfer {
 public:
  explicit Transfer(const std::string& url)
      : mCurl(curl()),
        mHandle(mCurl.init(), mCurl.cleanup),
        mHeaders(mCurl.append(nullptr, "Accept: application/pvd+json"), mCurl.freeAll) {
    if (!mHandle || !mHeaders) throw Failure(kInternal, "no memory");
    set(CURLOPT_URL, url.c_str());
    // The request names neither the user nor the program: by default, libcurl sends no cookies and
    // no user agent.
    set(CURLOPT_HTTPHEADER, mHeaders.get());
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_FAILONERROR, 1L);
    set(CURLOPT_NOPROXY, "*");  // no proxy, because the document is on the proxy's own server
    set(CURLOPT_TIMEOUT, kFetchSeconds);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_WRITEFUNCTION, &take);
    set(CURLOPT_WRITEDATA, &mText);
    set(CURLOPT_ERRORBUFFER, mError);
  }

  /// Fetches `url`. @return the body of the response. Throws Failure if there is none
  std::string run(const std::string& url) {
    const auto result = mCurl.perform(mHandle.get());
    if (result == CURLE_OK) return mText;
    if (result == CURLE_WRITE_ERROR) throw Failure(kRefused, url + ": it is longer than 256 KiB");
    throw Failure(kNoInput,
                  "cannot fetch " + url + ": " + (*mError == '\0' ? mCurl.textOf(result) : mError));
  }

  /// Whether the server sends the body with the required media type.
  bool hasType(std::string_view wanted) const {
    const char* type = nullptr;
    mCurl.get(mHandle.get(), CURLINFO_CONTENT_TYPE, &type);
    const std::string_view found = type == nullptr ? "" : type;
    return found.substr(0, found.find(';')) == wanted;
  }

 private:
  template <typename Value>
  void set(CURLoption option, Value value) {
    mCurl.set(mHandle.get(), option, value);
  }

  const Curl& mCurl;
  std::unique_ptr<CURL, decltype(Curl::cleanup)> mHandle;
  std::unique_ptr<curl_slist, decltype(Curl::freeAll)> mHeaders;
  std::string mText;
  char mError[CURL_ERROR_SIZE] = {};
};

Source fetched(const std::string& url) {
  Transfer transfer(url);
  Source source{transfer.run(url), hostOf(url), {}};
  if (!transfer.hasType("application/pvd+json")) {
    source.warning = "the server does not call it application/pvd+json";
  }
  return source;
}

Source readDocument(const std::string& name) {
  auto file = name == "-" ? base::readToEnd(STDIN_FILENO, kMaxDocumentBytes)
                          : base::readFile(name.c_str(), base::inTrustedFolder(kMaxDocumentBytes));
  if (file.failure.problem == base::FileProblem::tooLong) {
    throw Failure(kRefused, shownName(name) + ": it is longer than 256 KiB");
  }
  if (file.failure) {
    throw Failure(kNoInput, "cannot read " + shownName(name) + ": " + strerror(file.failure.error));
  }
  return {std::move(file.text), {}, {}};
}

bool isFile(const std::string& name) {
  struct stat status = {};
  return name == "-" || name.find('/') != std::string::npos || stat(name.c_str(), &status) == 0;
}

}  // namespace

std::string wellKnownUrl(const std::string& host) {
  auto name = host.substr(0, host.rfind(':'));
  if (name.ends_with('.')) name.pop_back();
  if (!isHostName(name)) throw Failure(kUsage, '"' + host + "\" is no host, no URL and no file");
  return "https://" + name + "/.well-known/pvd";
}

Source readSource(const std::string& name) {
  if (name.find("://") != std::string::npos) {
    if (canonicalOrGiven(name).rfind("https://", 0) != 0) {
      throw Failure(kUsage, "a document is fetched by https alone");
    }
    return fetched(name);
  }
  return isFile(name) ? readDocument(name) : fetched(wellKnownUrl(name));
}

}  // namespace client::pvd
