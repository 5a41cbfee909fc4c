// A walk: the candidate URLs of one configuration, tried one after the other until a script is
// installed. This file makes the list; PACFetcher::retrievePacFile tries its entries.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "service/records/proxy_config.h"

namespace fetcher {

/// The candidates of `config`, in order. In mode pacurl, the only candidate is the user's URL. In
/// mode wpad, the candidates are the lease's URL and then the URLs of the search list. `config`
/// must have one of these modes. Logs the lines of retrievePacFile. Throws std::bad_alloc.
/// @return nothing in mode pacurl without a URL and in mode wpad without DHCP information
std::optional<std::vector<std::string>> candidatesOf(const ProxyConfig& config);

}  // namespace fetcher
