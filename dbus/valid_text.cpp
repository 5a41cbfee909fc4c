#include "dbus/valid_text.h"

#include <dbus/dbus.h>

#include <algorithm>

#include "base/ascii.h"

std::string validText(const std::string& text) {
  if (dbus_validate_utf8(text.c_str(), nullptr) != 0) return text;
  std::string valid = text;
  std::replace_if(
      valid.begin(), valid.end(), [](char c) { return !base::isAscii(c); }, '?');
  return valid;
}
