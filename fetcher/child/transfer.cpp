#include "fetcher/child/transfer.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "base/ascii.h"
#include "fetcher/child/bounded_stream.h"

namespace fetch_child {

namespace {

template <auto function>
struct Release {
  template <typename T>
  void operator()(T* handle) const {
    function(handle);
  }
};
using Stream = std::unique_ptr<std::FILE, decltype([](std::FILE* file) { std::fclose(file); })>;
using CurlUrl = std::unique_ptr<CURLU, Release<curl_url_cleanup>>;
using CurlText = std::unique_ptr<char, Release<curl_free>>;

// The URL is parsed with the same flags as in the transfer itself, so that both read the URL in the
// same way. If a URL has no scheme, the transfer guesses one from the host's first label
// (ftp.example.com: ftp). If the URL cannot be parsed here, the transfer refuses it for the same
// reason.
bool mayBeFetched(const std::string& url) {
  const CurlUrl parts(curl_url());
  if (!parts) return false;
  if (curl_url_set(parts.get(), CURLUPART_URL, url.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return true;
  }
  char* text = nullptr;
  curl_url_get(parts.get(), CURLUPART_SCHEME, &text, 0);
  const CurlText scheme(text);
  return scheme && (base::equalIgnoringCase(scheme.get(), "http") ||
                    base::equalIgnoringCase(scheme.get(), "https"));
}

void setOptions(CURL* handle, const fetcher::FetchRequest& request, std::FILE* file) {
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(request.seconds));
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE, static_cast<long>(request.bytes));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr));
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, file);
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, static_cast<long>(request.redirects));
}

}  // namespace

fetcher::FetchResult transfer(CURL* handle, const fetcher::FetchRequest& request, int fd) {
  const Stream file(openBoundedStream(fd, static_cast<std::size_t>(request.bytes)));
  if (!file) return {false, 0, {}, curl_easy_strerror(CURLE_OUT_OF_MEMORY)};
  setOptions(handle, request, file.get());
  const CURLcode code =
      mayBeFetched(request.url) ? curl_easy_perform(handle) : CURLE_UNSUPPORTED_PROTOCOL;
  fetcher::FetchResult result;
  result.success = code == CURLE_OK;
  if (!result.success) result.error = curl_easy_strerror(code);
  long responseCode = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &responseCode);
  result.responseCode = static_cast<std::int32_t>(responseCode);
  const char* scheme = nullptr;
  curl_easy_getinfo(handle, CURLINFO_SCHEME, &scheme);
  if (scheme != nullptr) result.scheme = scheme;
  return result;
}

}  // namespace fetch_child
