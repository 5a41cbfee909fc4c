// Scripts in files of a temporary folder.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A script that gives the same answer to all questions.
inline std::string scriptFor(const std::string& answer) {
  return "function FindProxyForURL(url, host) { return \"" + answer + "\"; }\n";
}

class ScriptOnDisk {
 public:
  explicit ScriptOnDisk(const std::string& text) {
    std::string pattern = (std::filesystem::temp_directory_path() / "pac_XXXXXX").string();
    mFolder = mkdtemp(pattern.data());
    write(text);
  }
  ~ScriptOnDisk() { std::filesystem::remove_all(mFolder); }
  ScriptOnDisk(const ScriptOnDisk&) = delete;
  ScriptOnDisk& operator=(const ScriptOnDisk&) = delete;

  void write(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }
  std::string path() const { return mFolder + "/proxy.pac"; }
  const std::string& folder() const { return mFolder; }

 private:
  std::string mFolder;
};
