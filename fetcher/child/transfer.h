// One transfer by libcurl, as proxymanager-fetch makes it.
//
// The options are a contract: seven, in one order, and libcurl's defaults for the rest. What that
// means, and what stands around them:
// - Certificates are checked. Proxies from the process's environment variables are used by libcurl
//   as anywhere; the daemon's own proxy setting never is.
// - Only http and https. The scheme of the first URL is judged before the transfer begins, by the
//   parser that the transfer uses. libcurl follows redirects to http, https, ftp and ftps; without
//   an option to narrow that, the daemon takes a transfer that ended on another scheme for failed.
//   Such a redirect costs a connection to an ftp server, and what comes back never becomes the
//   script.
// - libcurl holds announced lengths alone against CURLOPT_MAXFILESIZE. The stream that takes the
//   body refuses the byte past the limit, which ends the transfer there and then.
#pragma once

#include <curl/curl.h>

#include "fetcher/wire/packets.h"

namespace fetch_child {

/// Transfers request.url with `handle`, on which no option is set yet, into the file `fd`. The
/// caller keeps both.
fetcher::FetchResult transfer(CURL* handle, const fetcher::FetchRequest& request, int fd);

}  // namespace fetch_child
