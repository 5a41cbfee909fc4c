#include "dbus/proxy_manager_service_interface.h"

#include "base/wipe.h"
#include "dbus/valid_text.h"

namespace com {
namespace zentu {

using ::DBus::CallMessage;
using ::DBus::IntrospectedArgument;
using ::DBus::IntrospectedInterface;
using ::DBus::IntrospectedMethod;
using ::DBus::IntrospectedProperty;
using ::DBus::Message;
using ::DBus::MessageIter;
using ::DBus::ReturnMessage;
using ::DBus::SignalMessage;

namespace {

const IntrospectedArgument kCheckServicestartedArguments[] = {{"isStarted", "b", false},
                                                              {nullptr, nullptr, false}};
const IntrospectedArgument kGetProxyurlArguments[] = {
    {"requestUrl", "s", true}, {"proxyUrl", "as", false}, {nullptr, nullptr, false}};
const IntrospectedArgument kGetProxyconfigArguments[] = {{"proxyconfig", "(ssssss)", false},
                                                         {nullptr, nullptr, false}};
const IntrospectedArgument kUpdateProxyconfigArguments[] = {
    {"mode", "s", true},       {"proxyurl", "s", true},  {"pacurl", "s", true},
    {"enableauth", "b", true}, {"userName", "s", true},  {"password", "s", true},
    {"httpCode", "i", false},  {nullptr, nullptr, false}};
const IntrospectedMethod kMethods[] = {{"checkServicestarted", kCheckServicestartedArguments},
                                       {"getProxyurl", kGetProxyurlArguments},
                                       {"getProxyconfig", kGetProxyconfigArguments},
                                       {"updateProxyconfig", kUpdateProxyconfigArguments},
                                       {nullptr, nullptr}};

const IntrospectedArgument kNotifyProxyConfigupdatedArguments[] = {{"proxymode", "s", false},
                                                                   {"proxyurl", "s", false},
                                                                   {"username", "s", false},
                                                                   {"password", "s", false},
                                                                   {nullptr, nullptr, false}};
const IntrospectedArgument kNotifyClearcacheArguments[] = {{nullptr, nullptr, false}};
const IntrospectedArgument kProxyMgrStateEventArguments[] = {{"eventType", "i", false},
                                                             {nullptr, nullptr, false}};
const IntrospectedMethod kSignals[] = {
    {"notifyProxyConfigupdated", kNotifyProxyConfigupdatedArguments},
    {"notifyClearcache", kNotifyClearcacheArguments},
    {"ProxyMgrStateEvent", kProxyMgrStateEventArguments},
    {nullptr, nullptr}};

const IntrospectedProperty kProperties[] = {{nullptr, nullptr, false, false}};

// Not const, because the library's type of the table is not const.
IntrospectedInterface ProxyManagerServiceInterface_adaptor_interface = {
    ProxyManagerServiceInterface_adaptor::kInterface, kMethods, kSignals, kProperties};

// The parameter is a std::string, because the library would send a literal as a boolean.
void append(MessageIter& writer, const std::string& text) {
  writer.append_string(validText(text).c_str());
}

// Adds a text of the configuration. Each of these texts may contain a password, because a URL may
// contain one, too.
void appendSecret(MessageIter& writer, const std::string& text) {
  std::string valid = validText(text);
  const base::WipedAtEnd wiped(valid);
  writer.append_string(valid.c_str());
}

std::string readText(MessageIter& reader) {
  std::string text = reader.get_string();
  ++reader;
  return text;
}

bool readBool(MessageIter& reader) {
  const bool value = reader.get_bool();
  ++reader;
  return value;
}

}  // namespace

ProxyManagerServiceInterface_adaptor::ProxyManagerServiceInterface_adaptor()
    : ::DBus::InterfaceAdaptor(kInterface) {
  register_method(ProxyManagerServiceInterface_adaptor, checkServicestarted,
                  _checkServicestarted_stub);
  register_method(ProxyManagerServiceInterface_adaptor, getProxyurl, _getProxyurl_stub);
  register_method(ProxyManagerServiceInterface_adaptor, getProxyconfig, _getProxyconfig_stub);
  register_method(ProxyManagerServiceInterface_adaptor, updateProxyconfig, _updateProxyconfig_stub);
}

IntrospectedInterface* ProxyManagerServiceInterface_adaptor::introspect() const {
  return &ProxyManagerServiceInterface_adaptor_interface;
}

bool ProxyManagerServiceInterface_adaptor::hasMethod(const char* name) const {
  return _methods.find(name) != _methods.end();
}

void ProxyManagerServiceInterface_adaptor::notifyProxyConfigupdated(const std::string& proxymode,
                                                                    const std::string& proxyurl,
                                                                    const std::string& username,
                                                                    const std::string& password) {
  SignalMessage signal("notifyProxyConfigupdated");
  MessageIter writer = signal.writer();
  appendSecret(writer, proxymode);
  appendSecret(writer, proxyurl);
  appendSecret(writer, username);
  appendSecret(writer, password);
  emit_signal(signal);
}

void ProxyManagerServiceInterface_adaptor::notifyClearcache() {
  emit_signal(SignalMessage("notifyClearcache"));
}

void ProxyManagerServiceInterface_adaptor::ProxyMgrStateEvent(std::int32_t eventType) {
  SignalMessage signal("ProxyMgrStateEvent");
  signal.writer().append_int32(eventType);
  emit_signal(signal);
}

Message ProxyManagerServiceInterface_adaptor::_checkServicestarted_stub(const CallMessage& call) {
  const bool isStarted = checkServicestarted();
  ReturnMessage reply(call);
  reply.writer().append_bool(isStarted);
  return reply;
}

Message ProxyManagerServiceInterface_adaptor::_getProxyurl_stub(const CallMessage& call) {
  MessageIter reader = call.reader();
  const std::string requestUrl = readText(reader);
  const std::vector<std::string> proxyUrl = getProxyurl(requestUrl);
  ReturnMessage reply(call);
  MessageIter writer = reply.writer();
  MessageIter array = writer.new_array("s");
  for (const auto& text : proxyUrl) append(array, text);
  writer.close_container(array);
  return reply;
}

Message ProxyManagerServiceInterface_adaptor::_getProxyconfig_stub(const CallMessage& call) {
  ProxyConfigTexts texts = getProxyconfig();
  ReturnMessage reply(call);
  MessageIter writer = reply.writer();
  MessageIter members = writer.new_struct();
  for (auto* text : {&texts._1, &texts._2, &texts._3, &texts._4, &texts._5, &texts._6}) {
    const base::WipedAtEnd wiped(*text);
    appendSecret(members, *text);
  }
  writer.close_container(members);
  return reply;
}

Message ProxyManagerServiceInterface_adaptor::_updateProxyconfig_stub(const CallMessage& call) {
  MessageIter reader = call.reader();
  const std::string mode = readText(reader);
  std::string proxyurl = readText(reader);
  const base::WipedAtEnd wipedProxyurl(proxyurl);
  std::string pacurl = readText(reader);
  const base::WipedAtEnd wipedPacurl(pacurl);
  const bool enableauth = readBool(reader);
  std::string userName = readText(reader);
  const base::WipedAtEnd wipedUserName(userName);
  std::string password = readText(reader);
  const base::WipedAtEnd wipedPassword(password);
  const std::int32_t httpCode =
      updateProxyconfig(mode, proxyurl, pacurl, enableauth, userName, password);
  ReturnMessage reply(call);
  reply.writer().append_int32(httpCode);
  return reply;
}

}  // namespace zentu
}  // namespace com
