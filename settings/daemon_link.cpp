#include "settings/daemon_link.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "base/bus_names.h"
#include "base/visible.h"
#include "settings/event_timer.h"

namespace settings {

namespace {

std::string problemOf(sd_bus_message* reply) {
  if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
    const char* text = error->message != nullptr ? error->message : error->name;
    return base::visible(text != nullptr ? text : "an error without a name");
  }
  return {};
}

std::optional<Mode> modeOf(std::string_view text) {
  for (const Mode mode : {Mode::kOff, Mode::kManual, Mode::kPacUrl, Mode::kWpad}) {
    if (text == modeText(mode)) return mode;
  }
  return std::nullopt;
}

std::optional<Configuration> configurationOf(sd_bus_message* reply) {
  const char *mode = nullptr, *proxyUrl = nullptr, *pacUrl = nullptr, *authentication = nullptr,
             *user = nullptr, *password = nullptr;
  if (sd_bus_message_read(reply, "(ssssss)", &mode, &proxyUrl, &pacUrl, &authentication, &user,
                          &password) < 0) {
    return std::nullopt;
  }
  const auto known = modeOf(mode);
  if (!known) return std::nullopt;
  return Configuration{*known, proxyUrl, pacUrl, user, password};
}

}  // namespace

void DaemonLink::watch(Listener& listener) {
  mListener = &listener;
  sd_bus_slot* slot = nullptr;
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      std::string(base::kBusName) + "'";
  require(sd_bus_add_match_async(mBus, &slot, rule.c_str(), onOwnerChanged, nullptr, this),
          "sd_bus_add_match_async");
  mMatch.reset(slot);
  slot = nullptr;
  require(sd_bus_call_method_async(mBus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "GetNameOwner", onOwner, this, "s",
                                   base::kBusName),
          "GetNameOwner");
  mFirstLook.reset(slot);
}

int DaemonLink::onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error*) {
  const char *name = nullptr, *before = nullptr, *now = nullptr;
  if (sd_bus_message_read(signal, "sss", &name, &before, &now) < 0) return 0;
  if (std::strcmp(name, base::kBusName) != 0) return 0;
  auto& link = *static_cast<DaemonLink*>(self);
  return guarded(sd_bus_get_event(link.mBus), [&link, now] { link.ownerIs(now); });
}

int DaemonLink::onOwner(sd_bus_message* reply, void* self, sd_bus_error*) {
  const char* owner = nullptr;
  if (sd_bus_message_is_method_error(reply, nullptr)) return 0;  // the name has no owner
  if (sd_bus_message_read(reply, "s", &owner) < 0) return 0;
  auto& link = *static_cast<DaemonLink*>(self);
  return guarded(sd_bus_get_event(link.mBus), [&link, owner] { link.ownerIs(owner); });
}

void DaemonLink::ownerIs(const std::string& owner) {
  if (owner == mOwner) return;
  const bool wasThere = isThere();
  mOwner = owner;
  mUser.reset();
  mUserQuestion.reset();
  if (isThere()) askForUser();
  if (wasThere) mListener->daemonVanished();
  if (isThere()) mListener->daemonAppeared();
}

void DaemonLink::askForUser() {
  sd_bus_slot* slot = nullptr;
  require(sd_bus_call_method_async(mBus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "GetConnectionUnixUser", onUser, this,
                                   "s", mOwner.c_str()),
          "GetConnectionUnixUser");
  mUserQuestion.reset(slot);
}

// An error in the reply means that the daemon's connection has just ended.
int DaemonLink::onUser(sd_bus_message* reply, void* self, sd_bus_error*) {
  std::uint32_t user = 0;
  if (sd_bus_message_is_method_error(reply, nullptr)) return 0;
  if (sd_bus_message_read(reply, "u", &user) < 0) return 0;
  static_cast<DaemonLink*>(self)->mUser = user;
  return 0;
}

BusMessage DaemonLink::newCall(sd_bus* bus, const char* member) {
  sd_bus_message* message = nullptr;
  require(sd_bus_message_new_method_call(bus, &message, base::kBusName, base::kObjectPath,
                                         base::kInterface, member),
          "sd_bus_message_new_method_call");
  BusMessage owned(message);
  require(sd_bus_message_set_auto_start(message, 0), "sd_bus_message_set_auto_start");
  return owned;
}

void DaemonLink::call(BusMessage message, std::function<void(sd_bus_message*)> done,
                      std::chrono::microseconds limit) {
  mCalls.push_back({this, std::move(done), nullptr});
  sd_bus_slot* slot = nullptr;
  const int sent =
      sd_bus_call_async(sd_bus_message_get_bus(message.get()), &slot, message.get(), onReply,
                        &mCalls.back(), static_cast<std::uint64_t>(limit.count()));
  if (sent < 0) mCalls.pop_back();
  require(sent, "sd_bus_call_async");
  mCalls.back().slot.reset(slot);
}

int DaemonLink::onReply(sd_bus_message* reply, void* call, sd_bus_error*) {
  auto& link = *static_cast<Call*>(call)->link;
  auto& calls = link.mCalls;
  for (auto entry = calls.begin(); entry != calls.end(); ++entry) {
    if (&*entry != call) continue;
    // The callback may start calls, so this call is removed from the list first.
    std::list<Call> ended;
    ended.splice(ended.begin(), calls, entry);
    return guarded(sd_bus_get_event(link.mBus), [&ended, reply] { ended.front().done(reply); });
  }
  return 0;
}

void DaemonLink::read(Read done, std::chrono::microseconds limit) {
  const auto replied = [done = std::move(done)](sd_bus_message* reply) {
    std::string problem = problemOf(reply);
    auto configuration = problem.empty() ? configurationOf(reply) : std::nullopt;
    if (problem.empty() && !configuration) problem = "the reply is not the daemon's";
    done(std::move(configuration), problem);
  };
  call(newCall(mBus, "getProxyconfig"), replied, limit);
}

void DaemonLink::update(const Configuration& configuration, Updated done) {
  BusMessage message = newCall(mBus, "updateProxyconfig");
  require(sd_bus_message_append(message.get(), "sssbss", modeText(configuration.mode),
                                configuration.proxyUrl.c_str(), configuration.pacUrl.c_str(),
                                configuration.authenticates() ? 1 : 0, configuration.user.c_str(),
                                configuration.password.c_str()),
          "sd_bus_message_append");
  // The bus library wipes its copy of the password before it frees the memory.
  require(sd_bus_message_sensitive(message.get()), "sd_bus_message_sensitive");
  call(std::move(message), [done = std::move(done)](sd_bus_message* reply) {
    std::string problem = problemOf(reply);
    std::int32_t result = 0;
    if (problem.empty() && sd_bus_message_read(reply, "i", &result) < 0) {
      problem = "the reply is not the daemon's";
    }
    if (problem.empty() && result != 0) problem = "the daemon is about to end";
    done(problem);
  });
}

void DaemonLink::ask(const std::string& url, Answered done) {
  BusMessage message = newCall(mQuestions, "getProxyurl");
  require(sd_bus_message_append(message.get(), "s", url.c_str()), "sd_bus_message_append");
  call(std::move(message), [done = std::move(done)](sd_bus_message* reply) {
    std::vector<std::string> texts;
    const char* text = nullptr;
    if (sd_bus_message_is_method_error(reply, nullptr) ||
        sd_bus_message_enter_container(reply, 'a', "s") < 0) {
      done(std::nullopt);
      return;
    }
    while (sd_bus_message_read(reply, "s", &text) > 0) texts.emplace_back(text);
    done(std::move(texts));
  });
}

}  // namespace settings
