// One transfer by libcurl, as proxymanager-fetch makes it.
//
// The options are a contract: seven options in a fixed order, and libcurl's defaults for all
// others. This means:
// - Certificates are checked. As in any program, libcurl uses the proxies that the environment
//   variables of the process name. It never uses the daemon's own proxy setting.
// - Only http and https. The scheme of the first URL is checked before the transfer begins, by
//   libcurl's own URL parser. libcurl follows redirects to http, https, ftp and ftps, and none of
//   the seven options forbids ftp and ftps. So the daemon counts a transfer as failed if it ends on
//   one of these schemes. Such a redirect causes a connection to an ftp server, but the server's
//   file never becomes the script.
// - libcurl compares CURLOPT_MAXFILESIZE only with a length that the server announces. Therefore
//   the stream that receives the body refuses the first byte past the limit. This ends the transfer
//   at once.
#pragma once

#include <curl/curl.h>

#include "fetcher/wire/packets.h"

namespace fetch_child {

/// Downloads request.url with `handle` into the file `fd`. No option of `handle` may be set yet.
/// The caller keeps `handle` and `fd`.
fetcher::FetchResult transfer(CURL* handle, const fetcher::FetchRequest& request, int fd);

}  // namespace fetch_child
