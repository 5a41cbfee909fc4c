#include "platform/bus/bus_helper.h"

#include <dbus/dbus-shared.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <future>
#include <thread>
#include <utility>

#include "base/log_line.h"
#include "platform/bus/bus_loop.h"

namespace DBus {

namespace {

// Time limit for the connection to the bus, and for the bus's answers to calls of its own methods.
constexpr std::chrono::seconds kConnectLimit{10};
constexpr int kBusAnswerMilliseconds = 5000;

std::unique_ptr<BusLoop> makeLoop() {
  _init_threading();  // must come before libdbus makes its first lock
  auto loop = std::make_unique<BusLoop>(BusHelper::kMaxPosted);
  default_dispatcher = loop.get();  // SystemBus() crashes without a dispatcher
  return loop;
}

using Connected = std::promise<std::unique_ptr<Connection>>;

// The library's handshake has no time limit, so it runs on a separate thread. If the bus does not
// answer, nothing stops this thread, and the objects that it may still use are never freed. The
// process ends soon after that.
std::unique_ptr<Connection> connectWithinLimit(std::unique_ptr<BusLoop>& loop) {
  auto connected = std::make_shared<Connected>();
  auto connection = connected->get_future();
  std::thread connecting([connected] {
    try {
      connected->set_value(std::make_unique<Connection>(Connection::SystemBus()));
    } catch (...) {
      connected->set_exception(std::current_exception());
    }
  });
  if (connection.wait_for(kConnectLimit) == std::future_status::ready) {
    connecting.join();
    return connection.get();
  }
  connecting.detach();
  [[maybe_unused]] const auto* left = loop.release();
  throw Error("org.freedesktop.DBus.Error.Timeout", "the message bus does not answer");
}

// The process ends at once: all remaining work needs the bus, and a worker ends when its socket is
// closed.
[[noreturn]] void endAsTheBusIsLost() {
  logLine(LOG_ERR, "bus: connection to the message bus lost, ending");
  _exit(EXIT_FAILURE);
}

}  // namespace

BusHelper::DispatcherReset::~DispatcherReset() {
  default_dispatcher = nullptr;
}

BusHelper::BusHelper() : mLoop(makeLoop()), mConnection(connectWithinLimit(mLoop)) {
  mConnection->exit_on_disconnect(false);  // the loop logs the loss before the process ends
}

BusHelper::~BusHelper() {
  stopDispatching();
}

void BusHelper::requestName(const char* name) {
  // The library's request_name is not used, for two reasons. It hides that the request was only
  // queued. It also makes the library wait up to 25 s for the release of the name when the
  // connection ends, although closing the socket releases the name at once.
  CallMessage call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                   "RequestName");
  MessageIter writer = call.writer();
  writer.append_string(name);
  writer.append_uint32(0);
  const Message answer = mConnection->send_blocking(call, kBusAnswerMilliseconds);
  const auto result = answer.reader().get_uint32();
  if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER &&
      result != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
    throw Error("org.freedesktop.DBus.Error.AddressInUse", "another process owns the bus name");
  }
  mName = name;
}

void BusHelper::setTurn(std::function<int()> turn) {
  mLoop->setTurn(std::move(turn));
}

void BusHelper::startDispatching() {
  if (mLoop->hasReleasedName()) requestName(std::string(mName).c_str());
  mLoop->start(*mConnection, mName, endAsTheBusIsLost);
}

void BusHelper::stopDispatching() {
  mLoop->stop();
}

void BusHelper::run(std::function<void()> function) {
  if (!mLoop->runsElsewhere()) {
    BusLoop::runLogged(function);
  } else if (!mLoop->post(std::move(function))) {
    logLine(LOG_ERR, "bus: %zu functions wait for the bus thread, one more dropped", kMaxPosted);
  }
}

std::shared_ptr<BusHelper> get_helper() {
  static std::weak_ptr<BusHelper> shared;
  auto helper = shared.lock();
  if (!helper) shared = helper = std::make_shared<BusHelper>();
  return helper;
}

}  // namespace DBus
