#include "client/ctl/commands/saved_settings.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <thread>

#include "base/small_file.h"
#include "base/unique_fd.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/secret.h"

namespace client {

namespace {

const std::string kFolder = kSettingsFolder;
/// Maximum number of bytes of a settings file. The settings service refuses a longer file.
constexpr std::size_t kMaxFileBytes = 64U << 10U;
/// The names of all files that --save writes begin with this text. In the name of an unfinished
/// file, a dot comes first.
constexpr std::string_view kSavedPrefix = "90-saved.";
constexpr std::chrono::milliseconds kLockPause{20};
/// The keys that choose the proxy.
constexpr std::array<std::string_view, 8> kProxyKeys{
    "source", "mode",     "proxy-url",     "pac-url",
    "user",   "password", "password-file", "password-credential"};

[[noreturn]] void failed(const std::string& path) {
  const int error = errno;
  const std::string message = path + ": " + std::strerror(error);
  if (error == EACCES || error == EPERM) {
    throw Failure(kDenied, message + "; only root saves settings");
  }
  throw Failure(kOutput, message);
}

/// `text` as a basic string of TOML (https://toml.io/en/v1.0.0#string).
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      std::array<char, 8> escape{};
      std::snprintf(escape.data(), escape.size(), "\\u%04x", byte);
      result += escape.data();
    } else {
      result += c;
    }
  }
  return result + "\"";
}

void writeAll(int fd, std::string_view text, const std::string& path) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) failed(path);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// An unfinished file, which the destructor removes.
class Unfinished {
 public:
  explicit Unfinished(std::string path) : mPath(std::move(path)) {}
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;
  ~Unfinished() {
    if (!mPath.empty()) unlink(mPath.c_str());
  }
  void finished() { mPath.clear(); }

 private:
  std::string mPath;
};

/// Makes the folder `path`. The settings service's user must be able to enter the folder, even if
/// root has a strict umask.
void makeFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0) {
    if (chmod(path.c_str(), 0755) != 0) failed(path);
  } else if (errno != EEXIST) {
    failed(path);
  }
}

/// Waits until no other proxymanagerctl writes or removes the files. The lock is a file that only
/// root can open. Every user could lock the folder, so the folder is not used as the lock.
base::UniqueFd lockFiles() {
  base::UniqueFd lock(open(kSaveLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) failed(errno == EACCES ? kFolder + "/" + kSavedName : kSaveLock);
  const auto end = std::chrono::steady_clock::now() + kSaveLockLimit;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) failed(kSaveLock);
    if (std::chrono::steady_clock::now() >= end) {
      throw Failure(kOutput, "another proxymanagerctl is writing the saved settings");
    }
    std::this_thread::sleep_for(kLockPause);
  }
  return lock;
}

/// Makes sure that a rename or a removal survives a power failure.
void syncFolder() {
  const base::UniqueFd folder(open(kFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || fsync(folder.get()) != 0) failed(kFolder);
}

void writeFile(const std::string& name, std::string_view text) {
  const std::string path = kFolder + "/" + name;
  // The service ignores a name that starts with a dot.
  std::string temporary = kFolder + "/." + name + ".XXXXXX";
  const base::UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) failed(path);
  Unfinished unfinished(temporary);
  const group* const service = getgrnam(kSettingsGroup);
  if (service != nullptr && fchown(file.get(), 0, service->gr_gid) != 0) failed(path);
  if (fchmod(file.get(), 0640) != 0) failed(path);
  writeAll(file.get(), text, path);
  if (fsync(file.get()) != 0 || rename(temporary.c_str(), path.c_str()) != 0) failed(path);
  unfinished.finished();
}

bool removeFile(const std::string& name) {
  const std::string path = kFolder + "/" + name;
  if (unlink(path.c_str()) == 0) return true;
  if (errno != ENOENT) failed(path);
  return false;
}

/// The files with a saved password. One file is in use; an interrupted save can leave another file.
std::vector<std::string> passwordFiles() {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder, error)) {
    std::string name = entry.path().filename();
    if (!name.starts_with(kSavedPasswordName)) continue;
    const auto rest = std::string_view(name).substr(std::strlen(kSavedPasswordName));
    if (rest.find_first_not_of(".0123456789") == std::string_view::npos) {
      names.push_back(std::move(name));
    }
  }
  return names;
}

/// A name that no password file has. The settings in force must keep their password file until they
/// are replaced.
std::string freePasswordName() {
  const auto taken = passwordFiles();
  std::string name = kSavedPasswordName;
  for (int i = 1; std::find(taken.begin(), taken.end(), name) != taken.end(); i++) {
    name = std::string(kSavedPasswordName) + "." + std::to_string(i);
  }
  return name;
}

bool removePasswordsExcept(const std::string& kept) {
  bool hasRemoved = false;
  for (const auto& name : passwordFiles()) {
    if (name != kept) hasRemoved = removeFile(name) || hasRemoved;
  }
  return hasRemoved;
}

/// Removes the files that an interrupted save has left. The caller must hold the lock.
void removeUnfinished() {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder, error)) {
    std::string name = entry.path().filename();
    if (name.starts_with('.') && std::string_view(name).substr(1).starts_with(kSavedPrefix)) {
      names.push_back(std::move(name));
    }
  }
  for (const auto& name : names) removeFile(name);
}

/// The first of kProxyKeys that a line of `text` sets. Only the service parses TOML; here, the
/// first word of a line is enough.
std::optional<std::string> proxyKeyIn(std::string_view text) {
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    line.remove_prefix(std::min(line.find_first_not_of(" \t\"'"), line.size()));
    const auto key = line.substr(0, line.find_first_of(" \t\"'="));
    if (line.find('=') == std::string_view::npos) continue;
    if (std::find(kProxyKeys.begin(), kProxyKeys.end(), key) != kProxyKeys.end()) {
      return std::string(key);
    }
  }
  return std::nullopt;
}

std::vector<std::string> laterFiles() {
  std::vector<std::string> later;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(kFolder, error)) {
    const std::string name = entry.path().filename();
    if (name.ends_with(".conf") && name > kSavedName) later.push_back(entry.path());
  }
  std::sort(later.begin(), later.end());
  return later;
}

}  // namespace

std::string savedTextProblem(const std::string& text, bool isUrl) {
  if (text.size() > kMaxSavedBytes) return "it is longer than 8192 bytes";
  const bool fits = std::all_of(text.begin(), text.end(), [isUrl](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return isUrl ? byte > ' ' && byte < 0x7F : c != '\n' && c != '\r';
  });
  if (fits) return {};
  return isUrl ? "it is not printable ASCII" : "it has more than one line";
}

std::string settingsText(const Configuration& configuration, const std::string& passwordFile) {
  std::string text =
      "# Saved by proxymanagerctl; \"proxymanagerctl settings reset\" removes this file.\n";
  const auto add = [&text](const char* key, const std::string& value) {
    text += std::string(key) + " = " + quoted(value) + "\n";
  };
  // This line is always written, because a file that is read earlier may leave the choice to
  // network managers.
  add("source", "auto");
  add("mode", configuration.mode);
  if (!configuration.proxyurl.empty()) add("proxy-url", configuration.proxyurl);
  if (!configuration.pacurl.empty()) add("pac-url", configuration.pacurl);
  add("user", configuration.userName);
  if (configuration.password.empty()) {
    add("password", "");
  } else {
    add("password-file", passwordFile);
  }
  return text;
}

std::string saveSettings(const Configuration& configuration) {
  makeFolder(std::filesystem::path(kFolder).parent_path());
  makeFolder(kFolder);
  const base::UniqueFd lock = lockFiles();
  removeUnfinished();
  // The password is written first, because settings that refer to a missing file are not used. The
  // password file has a new name, because the old settings must never be used with the new
  // password.
  const std::string password = configuration.password.empty() ? "" : freePasswordName();
  Unfinished unfinished(password.empty() ? "" : kFolder + "/" + password);
  if (!password.empty()) {
    std::string line = configuration.password + "\n";
    const WipedAtEnd wiped(line);
    writeFile(password, line);
    syncFolder();
  }
  auto text = settingsText(configuration, kFolder + "/" + password);
  const WipedAtEnd wiped(text);  // a URL may contain a password
  writeFile(kSavedName, text);
  unfinished.finished();
  syncFolder();
  if (removePasswordsExcept(password)) syncFolder();
  return kFolder + "/" + kSavedName;
}

bool resetSettings() {
  const base::UniqueFd lock = lockFiles();
  removeUnfinished();
  const bool hadSettings = removeFile(kSavedName);
  const bool hadPassword = removePasswordsExcept("");
  if (hadSettings || hadPassword) syncFolder();
  return hadSettings || hadPassword;
}

bool hasSettingsService() {
  return getgrnam(kSettingsGroup) != nullptr;
}

std::vector<LaterSettings> laterSettings() {
  std::vector<LaterSettings> later;
  for (const auto& path : laterFiles()) {
    auto content = base::readFile(path.c_str(), {.mostBytes = kMaxFileBytes});
    const WipedAtEnd wiped(content.text);
    const auto key = proxyKeyIn(content.text);
    if (key) later.push_back({path, *key});
  }
  return later;
}

}  // namespace client
