#include "platform/bus/bus_helper.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/bus/bus_loop.h"
#include "platform/log/log_line.h"

namespace DBus {

namespace {

// How long the bus may take to answer one of its own methods at start.
constexpr int kBusAnswerMilliseconds = 5000;

std::unique_ptr<BusLoop> makeLoop() {
  _init_threading();  // before libdbus makes its first lock
  auto loop = std::make_unique<BusLoop>(BusHelper::kMaxPosted);
  default_dispatcher = loop.get();  // SystemBus() crashes without one
  return loop;
}

// No orderly end: nothing that is left to do needs the bus, and a worker ends with its socket.
[[noreturn]] void endAsTheBusIsLost() {
  logLine(LOG_ERR, "bus: connection to the message bus lost, ending");
  _exit(EXIT_FAILURE);
}

}  // namespace

BusHelper::BusHelper() : mLoop(makeLoop()), mConnection(Connection::SystemBus()) {
  mConnection.exit_on_disconnect(false);  // the loop tells the operator first
}

BusHelper::~BusHelper() {
  stopDispatching();
  default_dispatcher = nullptr;
}

void BusHelper::requestName(const char* name) {
  mConnection.request_name(name);
  // The library queues for an owned name without a word, so the owner is asked for.
  CallMessage question("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "GetNameOwner");
  question.writer().append_string(name);
  const Message answer = mConnection.send_blocking(question, kBusAnswerMilliseconds);
  if (std::strcmp(answer.reader().get_string(), mConnection.unique_name()) != 0) {
    throw Error("org.freedesktop.DBus.Error.AddressInUse", "another process owns the bus name");
  }
}

void BusHelper::startDispatching() {
  mLoop->start(mConnection, endAsTheBusIsLost);
}

void BusHelper::stopDispatching() {
  mLoop->stop();
}

void BusHelper::run(std::function<void()> function) {
  if (!mLoop->runsElsewhere()) {
    function();
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
