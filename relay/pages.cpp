#include "relay/pages.h"

#include "relay/rewrite.h"

namespace relay {

Task<std::string> pageFor(Context&, const RequestHead&, const Peer&) {
  co_return ownResponse(404, "no such page\n", true);
}

}  // namespace relay
