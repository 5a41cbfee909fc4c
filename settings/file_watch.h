// Detects changes of files or folders, by inotify.
#pragma once

#include <sys/inotify.h>
#include <sys/types.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "settings/event_timer.h"

namespace settings {

/// Changes come in bursts, because a package or an editor writes several files. They are reported
/// together after this pause.
inline constexpr std::chrono::milliseconds kFilePause{200};
/// If a folder changes continuously, the changes are reported after this number of changes.
inline constexpr int kMaxPostponed = 50;

/// Watches folders for changes of certain files in them. A folder that does not exist is not
/// watched: call set() again when its parent has changed. Runs in the event loop's thread.
class FileWatch {
 public:
  struct Place {
    std::string folder;
    std::string name;  ///< the name of one file; empty for all files of the folder
    bool operator==(const Place&) const = default;
  };

  /// @param changed called after a burst of changes
  FileWatch(sd_event* event, std::function<void()> changed);

  /// Watches only these places. @return true if one of the places was not watched before, or is now
  /// a different folder with the same name. In this case, a change before this call was not noticed
  bool set(const std::vector<Place>& places);

 private:
  struct Watched {
    FileWatch* watch;
    Place place;
    std::pair<dev_t, ino_t> folder;
    EventSource source;
  };
  static int onEvent(sd_event_source*, const inotify_event* event, void* watched);
  void noticed();

  sd_event* mEvent;
  std::function<void()> mChanged;
  EventTimer mPause;
  int mPostponed = 0;
  std::vector<std::unique_ptr<Watched>> mWatched;
};

/// The places in which a change of `path` is visible: its folder, and the folder of each link's
/// target. If a folder does not exist, the place is its nearest parent: call this function again
/// after a change there.
std::vector<FileWatch::Place> placesOf(const std::string& path);

}  // namespace settings
