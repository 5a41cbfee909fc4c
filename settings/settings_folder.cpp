#include "settings/settings_folder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "base/open_folder.h"
#include "base/small_file.h"
#include "base/visible.h"
#include "base/wipe.h"
#include "client/library/bus_text.h"
#include "settings/source_choice.h"

namespace settings {

namespace {

std::string shown(const std::string& path, unsigned line, const std::string& text) {
  std::string result = path;
  if (line != 0) result += ":" + std::to_string(line);
  return base::visible(result + ": " + text);
}

void complain(FolderSettings& result, const std::string& path, unsigned line,
              const std::string& text) {
  result.problems.push_back({shown(path, line, text), false});
}

std::string reasonOf(const base::FileFailure& failure) {
  switch (failure.problem) {
    case base::FileProblem::link:
      return "is a symbolic link";
    case base::FileProblem::notRegular:
      return "is not a regular file";
    case base::FileProblem::otherOwner:
      return "belongs neither to root nor to the service's user";
    case base::FileProblem::secondName:
      return "has a second name (hard link)";
    case base::FileProblem::tooLong:
      return "is too long";
    default:
      return std::string("cannot be read: ") + std::strerror(failure.error);
  }
}

/// The names in `folder` that end in ".conf", sorted.
std::vector<std::string> confFiles(const std::string& folder, FolderSettings& result) {
  std::vector<std::string> names;
  const base::OpenFolder open(opendir(folder.c_str()));
  if (!open) {
    if (errno != ENOENT) {
      complain(result, folder, 0, std::string("cannot be read: ") + std::strerror(errno));
    }
    return names;
  }
  while (const dirent* entry = readdir(open.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with('.') || !name.ends_with(".conf")) continue;
    if (names.size() == kMaxFiles) {
      complain(result, folder, 0, "contains more than 64 files");
      return {};
    }
    names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// A program may be overwriting the file at this moment, so two readings must be equal. The file's
/// time is too coarse to show such a change.
std::optional<std::string> readWhole(const base::OpenFile& file, std::size_t mostBytes,
                                     std::string& problem) {
  base::FileText content = base::readToEnd(file.fd.get(), mostBytes);
  if (content.failure || lseek(file.fd.get(), 0, SEEK_SET) != 0) {
    problem = reasonOf(content.failure);
    return std::nullopt;
  }
  base::FileText again = base::readToEnd(file.fd.get(), mostBytes);
  const bool isSame = !again.failure && again.text == content.text;
  base::wipe(again.text);  // it may contain a password
  if (isSame) return std::move(content.text);
  base::wipe(content.text);
  problem = "changes while it is read";
  return std::nullopt;
}

/// Whether a PAC URL has a user. Its path may contain '@', too.
bool hasUser(const std::string& pacUrl) {
  const auto begin = pacUrl.find("://") + 3;
  return pacUrl.substr(begin, pacUrl.find_first_of("/?#", begin) - begin).find('@') !=
         std::string::npos;
}

/// If a file contains a password, checks that other users cannot read this file.
void judgePasswords(const std::string& path, mode_t mode, FileSettings& settings,
                    FolderSettings& result) {
  const bool inProxyUrl = settings.proxyUrl && settings.proxyUrl->find('@') != std::string::npos;
  const bool inPacUrl = settings.pacUrl && hasUser(*settings.pacUrl);
  if ((inProxyUrl || inPacUrl) && (mode & 007U) != 0) {
    complain(result, path, 0,
             std::string(inProxyUrl ? "proxy-url" : "pac-url") +
                 " contains a password, so the file must not be readable by everybody");
  }
  if (!settings.password || settings.password->empty()) return;
  if ((mode & 077U) != 0) {
    complain(result, path, 0,
             "contains a password, so its mode must be 0600 (or use password-file)");
    settings.password.reset();
    return;
  }
  result.problems.push_back({shown(path, 0, "contains a password: password-file is safer"), true});
}

void readOne(const std::string& path, FolderSettings& result) {
  const base::FileDemands demands{.mostBytes = kMaxFileBytes};
  const base::OpenFile file = base::openFile(path.c_str(), demands);
  if (file.failure.problem == base::FileProblem::missing) return;
  std::string problem = reasonOf(file.failure);
  auto text = file.failure ? std::nullopt : readWhole(file, kMaxFileBytes, problem);
  if (!text) {
    complain(result, path, 0, problem);
    return;
  }
  ReadSettings read = readSettings(*text);
  base::wipe(*text);  // it may contain a password
  for (const auto& wrong : read.problems) complain(result, path, wrong.line, wrong.text);
  judgePasswords(path, file.status.st_mode, read.settings, result);
  if (read.settings.mode) result.modeFiles.push_back(path);
  overlay(result.settings, read.settings);
}

/// Reads the password from the first line of a file. Other users must not be able to read this
/// file.
void readPassword(const std::string& path, FolderSettings& result) {
  const base::FileDemands demands{.mostBytes = kMaxPasswordBytes + 1};
  const base::OpenFile file = base::openFile(path.c_str(), demands);
  if (file.failure) {
    complain(result, path, 0, "the password file " + reasonOf(file.failure));
    return;
  }
  if ((file.status.st_mode & 007U) != 0) {
    complain(result, path, 0, "the password file must not be accessible to everybody (mode 0640)");
    return;
  }
  std::string problem;
  auto text = readWhole(file, kMaxPasswordBytes + 1, problem);
  if (!text) {
    complain(result, path, 0, "the password file " + problem);
    return;
  }
  result.password = text->substr(0, text->find_first_of("\r\n"));
  base::wipe(*text);
  if (client::isBusText(result.password)) return;
  base::wipe(result.password);
  complain(result, path, 0, "the password file must be text in UTF-8");
}

void findPassword(const SettingsPaths& paths, FolderSettings& result) {
  const FileSettings& settings = result.settings;
  if (settings.passwordFile) {
    readPassword(*settings.passwordFile, result);
  } else if (settings.passwordCredential) {
    if (paths.credentials.empty()) {
      complain(result, paths.folder, 0,
               "password-credential is set, and the service was started without credentials");
      return;
    }
    readPassword(paths.credentials + "/" + *settings.passwordCredential, result);
  } else if (settings.password) {
    result.password = *settings.password;
  }
}

}  // namespace

bool FolderSettings::isFaulty() const {
  return std::any_of(problems.begin(), problems.end(),
                     [](const auto& problem) { return !problem.isWarning; });
}

FolderSettings::~FolderSettings() {
  base::wipe(password);
  if (settings.password) base::wipe(*settings.password);
}

FolderSettings readFolder(const SettingsPaths& paths) {
  FolderSettings result;
  readOne(paths.folder + "/settings.conf", result);
  const std::string more = paths.folder + "/settings.d";
  for (const auto& name : confFiles(more, result)) readOne(more + "/" + name, result);
  findPassword(paths, result);
  if (const std::string missing = missingKey(result.settings); !missing.empty()) {
    complain(result, paths.folder, 0, missing);
  }
  return result;
}

}  // namespace settings
