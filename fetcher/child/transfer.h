// One transfer by libcurl, as proxymanager-fetch makes it.
//
// The options are a contract: seven options in a fixed order, and libcurl's defaults for all
// others. This means:
// - Certificates are checked. libcurl uses the proxies in the process's environment variables, as
//   in any program. It never uses the daemon's own proxy setting.
// - Only http and https. The scheme of the first URL is checked before the transfer begins, by
//   libcurl's own URL parser. libcurl follows redirects to http, https, ftp and ftps, and the
//   contract has no option to narrow that. So the daemon counts a transfer that ends on another
//   scheme as failed. Such a redirect costs a connection to an ftp server, but its file never
//   becomes the script.
// - libcurl compares only announced lengths with CURLOPT_MAXFILESIZE. Therefore the stream that
//   takes the body refuses the first byte past the limit, which ends the transfer at once.
#pragma once

#include <curl/curl.h>

#include "fetcher/wire/packets.h"

namespace fetch_child {

/// Transfers request.url with `handle`, on which no option is set yet, into the file `fd`. The
/// caller keeps both.
fetcher::FetchResult transfer(CURL* handle, const fetcher::FetchRequest& request, int fd);

}  // namespace fetch_child
