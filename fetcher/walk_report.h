// The result of a walk, in one line for the supervisor. Every user may read that line, and a URL
// can contain a password. So the line has the hosts of the candidates and never their URLs.
#pragma once

#include <cstddef>
#include <string>

namespace fetcher {

class WalkReport {
 public:
  /// Records a candidate that failed. @param why one line, for example the text of Download::error
  void failed(const std::string& url, const std::string& why);
  /// Records the candidate whose script was installed.
  void installed(const std::string& url);

  bool hasScript() const { return mHasScript; }
  /// For example "script from a.example", "no script from 3 URLs, the last b.example: REASON".
  std::string text() const;

 private:
  bool mHasScript = false;
  std::size_t mFailed = 0;
  std::string mHost;  ///< host of the last candidate
  std::string mWhy;
};

}  // namespace fetcher
