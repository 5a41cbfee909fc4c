#include "client/ctl/commands/test_cases.h"

#include <algorithm>
#include <utility>

#include "base/ascii.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::string_view kArrow = "->";

/// The values that the options of one line set.
struct LineOptions {
  std::optional<std::string> host;
  SimulatedEnvironment environment;
};

/// One line that is parsed word by word.
class Line {
 public:
  Line(const std::string& file, std::size_t number, std::string_view text)
      : mFile(file), mNumber(number), mText(text) {}

  std::size_t number() const { return mNumber; }

  [[noreturn]] void fail(const std::string& why) const {
    throw Failure(kBadData, mFile + ":" + std::to_string(mNumber) + ": " + why);
  }

  /// The next word before the arrow; empty at the arrow and at the end.
  std::string_view peek() const {
    const auto word = mText.substr(0, mText.find_first_of(kBlanks));
    return word == kArrow ? std::string_view() : word;
  }

  std::string_view take() {
    const auto word = peek();
    mText.remove_prefix(word.size());
    mText = base::trimmed(mText, kBlanks);
    return word;
  }

  /// The text after the arrow. Returns nothing if there is no arrow.
  std::optional<std::string_view> answer() const {
    if (mText.substr(0, mText.find_first_of(kBlanks)) != kArrow) return std::nullopt;
    return base::trimmed(mText.substr(kArrow.size()), kBlanks);
  }

 private:
  const std::string& mFile;
  std::size_t mNumber;
  std::string_view mText;
};

std::string_view nameOf(std::string_view resolve) {
  return resolve.substr(0, resolve.find('='));
}

/// Adds the --resolve values `further` to `names`. A value replaces the earlier values for the same
/// name.
void refineNames(std::vector<std::string>& names, const std::vector<std::string>& further) {
  std::erase_if(names, [&](const auto& known) {
    return std::any_of(further.begin(), further.end(), [&](const auto& added) {
      return base::equalIgnoringCase(nameOf(known), nameOf(added));
    });
  });
  names.insert(names.end(), further.begin(), further.end());
}

LineOptions refined(LineOptions options, const LineOptions& further) {
  auto& world = options.environment;
  if (further.host) options.host = further.host;
  if (further.environment.time) world.time = further.environment.time;
  if (further.environment.zone) world.zone = further.environment.zone;
  if (further.environment.ownAddresses) world.ownAddresses = further.environment.ownAddresses;
  refineNames(world.names, further.environment.names);
  return options;
}

/// Removes the options from the start of `line`. @return their values
LineOptions takeOptions(Line& line) {
  LineOptions options;
  while (line.peek().substr(0, 2) == "--") {
    const auto word = line.take();
    const auto equals = word.find('=');
    const auto name = word.substr(0, equals);
    const auto value =
        std::string(equals == std::string_view::npos ? line.take() : word.substr(equals + 1));
    auto& world = options.environment;
    if (name == "--host") {
      options.host = value;
      continue;
    }
    if (name == "--at") {
      world.time = value;
    } else if (name == "--tz") {
      world.zone = value;
    } else if (name == "--my-ip") {
      world.ownAddresses = value;
    } else if (name == "--resolve") {
      world.names.push_back(value);
    } else {
      line.fail("there is no option " + std::string(name) +
                "; a case may have --host, --at, --tz, --resolve and --my-ip");
    }
    if (value.empty()) line.fail(std::string(name) + " has no value");
  }
  return options;
}

/// Sets defaults, so that `environment` takes only the clock and the zone from this device.
void closeWorld(SimulatedEnvironment& environment) {
  environment.offline = environment.names.empty();
  if (!environment.ownAddresses) environment.ownAddresses = "127.0.0.1";
}

TestCase caseOf(Line& line, std::string_view url, const LineOptions& outer) {
  const auto own = takeOptions(line);
  if (!line.peek().empty()) {
    line.fail("\"" + std::string(line.peek()) +
              "\" is no option; a case is URL [OPTIONS] -> ANSWER");
  }
  const auto answer = line.answer();
  if (!answer) line.fail("there is no \"->\"; a case is URL [OPTIONS] -> ANSWER");
  if (answer->empty()) {
    line.fail("there is no answer behind \"->\"; an empty one is written (empty)");
  }
  auto whole = refined(outer, own);
  closeWorld(whole.environment);
  return {line.number(), std::string(url), whole.host, whole.environment,
          comparableAnswer(*answer)};
}

}  // namespace

std::string comparableAnswer(std::string_view answer) {
  std::string joined;
  for (;;) {
    const auto semicolon = answer.find(';');
    const auto entry = base::trimmed(answer.substr(0, semicolon), " \t\r\n");
    if (!entry.empty()) {
      if (!joined.empty()) joined += "; ";
      joined += entry;
    }
    if (semicolon == std::string_view::npos) break;
    answer.remove_prefix(semicolon + 1);
  }
  return joined.empty() ? std::string(kExpectsEmpty) : joined;
}

std::vector<TestCase> parseTestCases(std::string_view text, const std::string& name,
                                     const SimulatedEnvironment& base) {
  std::vector<TestCase> cases;
  const LineOptions outermost{std::nullopt, base};
  auto outer = outermost;
  std::size_t number = 0;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto trimmed = base::trimmed(text.substr(0, end), kBlanks);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    Line line(name, ++number, trimmed);
    if (trimmed.empty() || trimmed.front() == '#') continue;
    if (line.peek().substr(0, 2) == "--") {
      outer = refined(outermost, takeOptions(line));
      if (!line.peek().empty() || line.answer()) line.fail("options stand behind the URL");
      continue;
    }
    const auto url = line.take();
    if (url.empty()) line.fail("there is no URL before \"->\"");
    if (cases.size() == kMaxTestCases) line.fail("more than 10,000 cases");
    cases.push_back(caseOf(line, url, outer));
  }
  if (cases.empty()) throw Failure(kBadData, name + ": there is no case in it");
  return cases;
}

}  // namespace client
