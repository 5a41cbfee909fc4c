#include "relay/relay.h"

#include <systemd/sd-daemon.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>

namespace relay {

int run(const Configured&, std::vector<base::UniqueFd>) {
  boost::asio::io_context loop(1);
  boost::asio::signal_set signals(loop, SIGTERM, SIGINT);
  signals.async_wait([&](const boost::system::error_code&, int) { loop.stop(); });
  sd_notify(0, "READY=1");
  loop.run();
  return 0;
}

}  // namespace relay
