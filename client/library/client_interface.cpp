// The functions of the C interface. They check their arguments, catch exceptions, and call the
// client.
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string_view>

#include "client/library/bus_address.h"
#include "client/library/client.h"
#include "client/library/include/proxymanager/client.h"

struct proxymanager_client {
  client::library::Client client;
};

namespace {

using client::library::AnswerRef;
using client::library::Outcome;
using client::library::setLastFailure;

constexpr unsigned kKnownFlags = PROXYMANAGER_NO_START | PROXYMANAGER_ASK_LOCAL |
                                 PROXYMANAGER_WITH_CREDENTIALS | PROXYMANAGER_REFUSE;

/// The result of `function`; if it throws, a status for the exception.
template <typename Function>
proxymanager_status guarded(Function function) noexcept {
  try {
    return function();
  } catch (const std::exception&) {  // no memory, or an operation of a lock or a list failed
    return PROXYMANAGER_NO_MEMORY;
  }
}

/// Checks the arguments of a question. @return PROXYMANAGER_OK if `client` can be asked about `url`
proxymanager_status check(const proxymanager_client* client, const char* url) {
  if (client == nullptr || url == nullptr) return PROXYMANAGER_BAD_ARGUMENT;
  return client->client.belongsHere() ? PROXYMANAGER_OK : PROXYMANAGER_FORKED;
}

/// Returns a view of the text. If the text is too long, the view has one byte more than
/// PROXYMANAGER_MAX_URL, so the question is refused.
std::string_view viewOf(const char* url) {
  return {url, strnlen(url, PROXYMANAGER_MAX_URL + std::size_t{1})};
}

/// Records for proxymanager_last_failure() how a question ended, or why it was not asked.
proxymanager_status told(const Outcome& outcome) noexcept {
  setLastFailure(outcome);
  return outcome.status;
}

}  // namespace

proxymanager_client* proxymanager_client_new(unsigned flags) {
  if ((flags & ~kKnownFlags) != 0) return nullptr;
  try {
    return new proxymanager_client{{client::systemBusAddress(), flags}};
  } catch (const std::exception&) {
    return nullptr;
  }
}

void proxymanager_client_free(proxymanager_client* client) {
  if (client == nullptr) return;
  // In a child process after fork(), nothing is freed: threads of the parent may have been changing
  // the memory when the process was copied.
  if (client->client.belongsHere()) delete client;
}

proxymanager_status proxymanager_get(proxymanager_client* client, const char* url,
                                     unsigned limit_ms, proxymanager_answer** answer) {
  if (answer != nullptr) *answer = nullptr;
  Outcome outcome;
  outcome.status = guarded([&] {
    if (answer == nullptr) return PROXYMANAGER_BAD_ARGUMENT;
    if (const auto status = check(client, url); status != PROXYMANAGER_OK) return status;
    outcome = client->client.get(viewOf(url), std::chrono::milliseconds(limit_ms));
    return outcome.status;
  });
  if (outcome.status == PROXYMANAGER_OK) *answer = outcome.answer.release();
  return told(outcome);
}

proxymanager_status proxymanager_get_async(proxymanager_client* client, const char* url,
                                           unsigned limit_ms, proxymanager_answer_callback callback,
                                           void* context, proxymanager_id* id) {
  proxymanager_id unwanted = 0;
  proxymanager_id& asked = id == nullptr ? unwanted : *id;
  asked = 0;
  AnswerRef remembered;
  Outcome outcome;
  outcome.status = guarded([&] {
    if (callback == nullptr) return PROXYMANAGER_BAD_ARGUMENT;
    if (const auto status = check(client, url); status != PROXYMANAGER_OK) return status;
    return client->client.ask(viewOf(url), std::chrono::milliseconds(limit_ms), callback, context,
                              asked, remembered);
  });
  const auto status = told(outcome);
  if (remembered) callback(PROXYMANAGER_OK, remembered.release(), context);
  return status;
}

int proxymanager_cancel(proxymanager_client* client, proxymanager_id id) {
  if (client == nullptr || !client->client.belongsHere()) return 0;
  return client->client.cancel(id) ? 1 : 0;
}

proxymanager_status proxymanager_watch(proxymanager_client* client,
                                       proxymanager_change_callback callback, void* context,
                                       proxymanager_id* id) {
  if (client == nullptr || callback == nullptr || id == nullptr) return PROXYMANAGER_BAD_ARGUMENT;
  *id = 0;
  if (!client->client.belongsHere()) return PROXYMANAGER_FORKED;
  return guarded([&] { return client->client.watch(callback, context, *id); });
}

void proxymanager_unwatch(proxymanager_client* client, proxymanager_id id) {
  if (client != nullptr && client->client.belongsHere()) client->client.unwatch(id);
}

proxymanager_answer* proxymanager_answer_ref(proxymanager_answer* answer) {
  if (answer != nullptr) answer->hold();
  return answer;
}

void proxymanager_answer_unref(proxymanager_answer* answer) {
  if (answer != nullptr) answer->give();
}

const char* proxymanager_answer_mode(const proxymanager_answer* answer) {
  return answer == nullptr ? "" : answer->mode().c_str();
}

size_t proxymanager_answer_count(const proxymanager_answer* answer) {
  return answer == nullptr ? 0 : answer->entries().size();
}

const proxymanager_entry* proxymanager_answer_entry(const proxymanager_answer* answer,
                                                    size_t index) {
  if (index >= proxymanager_answer_count(answer)) return nullptr;
  return &answer->entries()[index];
}

const char* proxymanager_status_text(proxymanager_status status) {
  switch (status) {
    case PROXYMANAGER_OK:
      return "answered";
    case PROXYMANAGER_NO_BUS:
      return "there is no message bus, or the connection to it ended";
    case PROXYMANAGER_NO_DAEMON:
      return "the daemon does not run";
    case PROXYMANAGER_DENIED:
      return "the bus does not allow it";
    case PROXYMANAGER_TOO_SLOW:
      return "no answer in time";
    case PROXYMANAGER_BAD_REPLY:
      return "the owner of the daemon's name sent a reply that the daemon never sends";
    case PROXYMANAGER_CANCELLED:
      return "cancelled";
    case PROXYMANAGER_BAD_ARGUMENT:
      return "a wrong argument";
    case PROXYMANAGER_NO_MEMORY:
      return "no memory, descriptor or thread is available";
    case PROXYMANAGER_BUSY:
      return "too many questions at once";
    case PROXYMANAGER_FORKED:
      return "the client belongs to the parent of this process";
    case PROXYMANAGER_NO_ANSWER:
      return "the answer has no entry that can be used";
  }
  return "an unknown status";
}

const proxymanager_failure* proxymanager_last_failure(void) {
  return client::library::lastFailure();
}

const char* proxymanager_client_version(void) {
  return PROXYMANAGER_VERSION;
}
