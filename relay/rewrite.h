// Makes the heads that the relay forwards (RFC 9110, section 7.6). Such a head has no fields that
// are only for the relay. It has the relay's name in Via, and only one length of the body. Pure
// functions, for any thread.
#pragma once

#include <string>
#include <string_view>

#include "relay/destination.h"
#include "relay/http_head.h"

namespace relay {

/// How the relay writes a request.
struct RequestForm {
  const Destination* destination = nullptr;
  std::string_view path;           ///< starts with "/" or "?", or is empty
  bool isAbsolute = false;         ///< the target is the whole URL, for an HTTP proxy
  bool isUpgrade = false;          ///< the relay forwards the field Upgrade
  bool expectsContinue = false;    ///< the relay sends the body only after a 100
  std::string_view via;            ///< the relay's name
  std::string_view authorization;  ///< value of Proxy-Authorization; empty: none
};

std::string requestFor(const RequestHead& request, const RequestForm& form);

/// How the relay writes a response to the client.
struct ResponseForm {
  bool isHttp11 = true;    ///< the client uses HTTP/1.1; false: HTTP/1.0
  bool isKept = true;      ///< the client's connection stays open after the response
  bool isUpgrade = false;  ///< a 101 is forwarded with Upgrade
  std::string_view via;
};

std::string responseFor(const ResponseHead& response, const ResponseForm& form);

/// Whether a Via field of the message has `name`.
bool wentThrough(const Fields& fields, std::string_view name);

/// Whether the sender of a head keeps its connection open after the message.
bool keepsConnection(const Fields& fields, bool isHttp11);

/// A complete response from the relay itself, with a text for people.
std::string ownResponse(unsigned status, std::string_view text, bool isKept = false,
                        bool hasBody = true);

/// The standard reason phrase of an HTTP status.
std::string_view reasonOf(unsigned status);

}  // namespace relay
