// One URL into one file, and whether that file is a script at all.
//
// The options of the transfer are a contract: those seven, in that order, and libcurl's defaults
// for the rest. What that means, and what stands around them:
// - Certificates are checked. Proxies from the process's environment variables are used by libcurl
//   as anywhere; this daemon's own proxy setting never is.
// - Only http and https. The scheme of the first URL is judged before the transfer begins, by the
//   parser that the transfer uses. libcurl follows redirects to http, https, ftp and ftps; without
//   an option to narrow that, a transfer that ended on another scheme counts as failed. Such a
//   redirect therefore costs a connection to an ftp server, within the same 30 seconds, and what
//   comes back never becomes the script.
// - libcurl holds announced lengths alone against CURLOPT_MAXFILESIZE. The stream that takes the
//   body refuses the byte past the limit, which ends the transfer there and then.
// - Without CURLOPT_NOSIGNAL libcurl sets SIGPIPE aside for the process while a transfer runs. It
//   raises no SIGALRM, as Debian's is built to resolve names on a thread of its own; with a libcurl
//   that resolves in place, a name lookup's time limit would be an alarm, and not safe here.
#include <curl/curl.h>
#include <strings.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "base/log_line.h"
#include "fetcher/bounded_file.h"
#include "fetcher/fetcher_log.h"
#include "fetcher/pac_fetcher.h"

using fetcher::kLogClass;

namespace {

constexpr long kTransferSeconds = 30;
constexpr long kLargestScript = 512000;  // bytes
constexpr long kMostRedirects = 5;

template <auto function>
struct Release {
  template <typename T>
  void operator()(T* handle) const {
    function(handle);
  }
};
using CurlHandle = std::unique_ptr<CURL, Release<curl_easy_cleanup>>;
using Stream = std::unique_ptr<std::FILE, decltype([](std::FILE* file) { std::fclose(file); })>;
using CurlUrl = std::unique_ptr<CURLU, Release<curl_url_cleanup>>;
using CurlText = std::unique_ptr<char, Release<curl_free>>;

bool isWebScheme(const char* scheme) {
  return scheme != nullptr && (strcasecmp(scheme, "http") == 0 || strcasecmp(scheme, "https") == 0);
}

// Read with the flags of the transfer's own parser, so that both see the same URL. Without a scheme
// that parser guesses one from the host's first label (ftp.example.com: ftp). What it cannot read
// the transfer refuses for the same reason, and is left to it.
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
  return isWebScheme(scheme.get());
}

void setOptions(CURL* curl, const std::string& url, std::FILE* file) {
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTransferSeconds);
  curl_easy_setopt(curl, CURLOPT_MAXFILESIZE, kLargestScript);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, static_cast<curl_write_callback>(nullptr));
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMostRedirects);
}

CURLcode transfer(CURL* curl, const std::string& url) {
  if (!mayBeFetched(url)) return CURLE_UNSUPPORTED_PROTOCOL;
  const CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK) return result;
  const char* scheme = nullptr;
  curl_easy_getinfo(curl, CURLINFO_SCHEME, &scheme);
  return isWebScheme(scheme) ? CURLE_OK : CURLE_UNSUPPORTED_PROTOCOL;
}

}  // namespace

bool PACFetcher::fileDownload(const std::string& url, const std::string& targetFile) {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  long code = 0;
  curl_global_init(CURL_GLOBAL_ALL);
  CurlHandle curl(curl_easy_init());
  if (!curl) {
    logLine(LOG_ERR, "%s%s failed to initialize curl handle! url:%s, target_file:%s", kLogClass,
            __func__, url.c_str(), targetFile.c_str());
    return false;
  }
  Stream file(fetcher::createBoundedFile(targetFile.c_str(), kLargestScript));
  if (file == nullptr) {
    logLine(LOG_ERR, "%s%s failed to open file %s, url:%s", kLogClass, __func__, targetFile.c_str(),
            url.c_str());
    return false;
  }
  setOptions(curl.get(), url, file.get());
  const bool success = transfer(curl.get(), url) == CURLE_OK;
  file.reset();
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &code);
  logLine(LOG_DEBUG, "%s%s result success:%s, code:%d", kLogClass, __func__,
          success ? "true" : "false", static_cast<int>(code));
  curl.reset();
  if (success) return true;
  const int removed = std::remove(targetFile.c_str());
  logLine(LOG_ERR, "%s%s failed to remove file %s after unsuccessful download: %d", kLogClass,
          __func__, targetFile.c_str(), removed);
  return false;
}

bool PACFetcher::isValidPacFile(const std::string& fileName) {
  std::ifstream file(fileName);
  std::string line;
  while (std::getline(file, line)) {
    if (line.find("FindProxyForURL") != std::string::npos) return true;
  }
  return false;
}
