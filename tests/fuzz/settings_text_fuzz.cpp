// Tests the reading of the administrator's settings, in a file with any content. Each problem names
// a line of the file, each accepted value is within its limits, and settings that are written and
// read again are equal.
#include <algorithm>
#include <cstdio>
#include <string>

#include "settings/settings_text.h"
#include "settings/source_choice.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;
using namespace settings;

namespace {

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", byte);
    const bool isEscaped = byte < 0x20 || byte == 0x7F || c == '"' || c == '\\';
    result += isEscaped ? std::string(escape) : std::string(1, c);
  }
  return result + "\"\n";
}

const char* sourceText(Source source) {
  if (source == Source::kAuto) return "auto";
  return source == Source::kFile ? "file" : "network";
}

std::string written(const FileSettings& settings) {
  std::string text;
  const auto add = [&text](const char* key, const auto& member, const auto& textOf) {
    if (member) text += std::string(key) + " = " + quoted(textOf(*member));
  };
  const auto same = [](const std::string& value) { return value; };
  const auto mode = [](Mode value) { return std::string(modeText(value)); };
  add("source", settings.source, [](Source value) { return std::string(sourceText(value)); });
  add("mode", settings.mode, mode);
  add("proxy-url", settings.proxyUrl, same);
  add("pac-url", settings.pacUrl, same);
  add("user", settings.user, same);
  add("password", settings.password, same);
  add("password-file", settings.passwordFile, same);
  add("password-credential", settings.passwordCredential, same);
  add("fallback", settings.fallback, mode);
  add("refresh", settings.refresh, [](std::chrono::seconds value) {
    return value.count() == 0 ? std::string("0") : std::to_string(value.count()) + "s";
  });
  add("network-direct", settings.networkDirectIsOff,
      [](bool value) { return std::string(value ? "off" : "ignore"); });
  add("find-proxy", settings.findProxyAll,
      [](bool value) { return std::string(value ? "all" : "first"); });
  return text;
}

bool isLine(const std::optional<std::string>& text) {
  return !text || (text->size() <= kMaxValueBytes &&
                   text->find_first_of(std::string_view("\0\n\r", 3)) == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = fuzz::textOf(data, size);
  const auto read = readSettings(text);
  const auto lines = static_cast<unsigned>(std::count(text.begin(), text.end(), '\n')) + 1;
  for (const auto& problem : read.problems) {
    require(!problem.text.empty(), "a problem has words");
    require(problem.line >= 1 && problem.line <= lines + 1, "a problem names a line of the file");
  }
  const auto& settings = read.settings;
  for (const auto& value : {settings.proxyUrl, settings.pacUrl, settings.user, settings.password,
                            settings.passwordFile, settings.passwordCredential}) {
    require(isLine(value), "a value is one line within its limit");
  }
  require(!settings.refresh || settings.refresh->count() == 0 ||
              (*settings.refresh >= kMinRefresh && *settings.refresh <= kMaxRefresh),
          "a refresh lies within its limits");
  const auto again = readSettings(written(settings));
  require(again.problems.empty() && again.settings == settings, "what is written is read back");
  FileSettings both = settings;
  overlay(both, settings);
  require(both == settings, "a file over itself changes nothing");
  const auto choice = choose(settings, "", nullptr);
  require(!choice.reason.empty() && choice.network == nullptr, "somebody decides");
  return 0;
}
