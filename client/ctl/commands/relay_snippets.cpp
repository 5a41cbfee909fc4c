#include "client/ctl/commands/relay_snippets.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "client/ctl/failure.h"

namespace client {

namespace {

namespace fs = std::filesystem;

struct Snippet {
  const char* file;  ///< the file name in the package's folder
  const char* link;
};

constexpr std::array<Snippet, 3> kSnippets{{
    {"profile.sh", "/etc/profile.d/proxymanager-relay.sh"},
    {"environment.conf", "/etc/environment.d/60-proxymanager-relay.conf"},
    {"apt.conf", "/etc/apt/apt.conf.d/60proxymanager-relay"},
}};

[[noreturn]] void fail(const std::string& what, const std::string& why) {
  throw Failure(kOutput, what + ": " + why);
}

/// The folder of the package's snippets. It is found relative to this program, so any install
/// prefix works.
fs::path folder() {
  std::error_code error;
  const auto own = fs::read_symlink("/proc/self/exe", error).parent_path();
  return own.parent_path() / "share/proxymanager/relay";
}

bool isLink(const fs::path& path) {
  std::error_code error;
  return fs::is_symlink(fs::symlink_status(path, error));
}

/// The snippets whose folder exists on this system: not every system has apt.
std::vector<Snippet> wanted() {
  std::vector<Snippet> all;
  std::error_code error;
  for (const auto& snippet : kSnippets) {
    if (fs::is_directory(fs::path(snippet.link).parent_path(), error)) all.push_back(snippet);
  }
  return all;
}

void check(const Snippet& snippet) {
  std::error_code error;
  if (fs::exists(fs::symlink_status(snippet.link, error)) && !isLink(snippet.link)) {
    fail(snippet.link, "it is there and no link of this program; move it away");
  }
  const auto file = folder() / snippet.file;
  if (!fs::is_regular_file(file, error)) fail(file, "it is not installed");
}

}  // namespace

std::vector<std::string> relayLinks() {
  std::vector<std::string> links;
  for (const auto& snippet : kSnippets) {
    if (isLink(snippet.link)) links.emplace_back(snippet.link);
  }
  return links;
}

std::vector<std::string> putRelayLinks() {
  const auto snippets = wanted();
  for (const auto& snippet : snippets) check(snippet);
  for (const auto& snippet : snippets) {
    std::error_code error;
    fs::remove(snippet.link, error);
    fs::create_symlink(folder() / snippet.file, snippet.link, error);
    if (!error) continue;
    const auto why = error.message();
    for (const auto& other : snippets) fs::remove(other.link, error);
    fail(snippet.link, why);
  }
  return relayLinks();
}

std::vector<std::string> removeRelayLinks() {
  const auto links = relayLinks();
  for (const auto& link : links) {
    std::error_code error;
    fs::remove(link, error);
    if (error) fail(link, error.message());
  }
  return links;
}

}  // namespace client
