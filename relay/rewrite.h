// Heads as the relay sends them on (RFC 9110, section 7.6): without what was meant for the relay
// alone, with its name in Via, and with one length. Pure functions, for any thread.
#pragma once

#include <string>
#include <string_view>

#include "relay/destination.h"
#include "relay/http_head.h"

namespace relay {

/// How a request leaves.
struct RequestForm {
  const Destination* destination = nullptr;
  std::string_view path;           ///< from "/" or "?" on, or empty
  bool isAbsolute = false;         ///< the whole URL, for an HTTP proxy
  bool isUpgrade = false;          ///< Upgrade goes on
  bool expectsContinue = false;    ///< the relay sends the body after a 100
  std::string_view via;            ///< the relay's name
  std::string_view authorization;  ///< value of Proxy-Authorization; empty: none
};

std::string requestFor(const RequestHead& request, const RequestForm& form);

/// How a response leaves for the client.
struct ResponseForm {
  bool isHttp11 = true;    ///< the client's version
  bool isKept = true;      ///< the client's connection stays open
  bool isUpgrade = false;  ///< 101 goes on with Upgrade
  std::string_view via;
};

std::string responseFor(const ResponseHead& response, const ResponseForm& form);

/// Whether `name` is in a field Via of the message.
bool wentThrough(const Fields& fields, std::string_view name);

/// Whether the sender of a head keeps its connection open afterwards.
bool keepsConnection(const Fields& fields, bool isHttp11);

/// A whole response of the relay's own, with a text for people.
std::string ownResponse(unsigned status, std::string_view text, bool isKept = false,
                        bool hasBody = true);

/// The standard reason of an HTTP status.
std::string_view reasonOf(unsigned status);

}  // namespace relay
