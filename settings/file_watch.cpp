#include "settings/file_watch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <string_view>
#include <utility>

namespace settings {

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM |
                                IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

/// Maximum number of links in a path, as for the kernel (MAXSYMLINKS).
constexpr int kMaxLinks = 40;

FileWatch::Place split(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

/// The nearest folder of `path` that exists, and the name that leads from it to `path`.
FileWatch::Place nearestPlace(const std::string& path) {
  FileWatch::Place place = split(path);
  while (place.folder.size() > 1 && access(place.folder.c_str(), F_OK) != 0) {
    place = split(place.folder);
  }
  return place;
}

}  // namespace

FileWatch::FileWatch(sd_event* event, std::function<void()> changed)
    : mEvent(event), mChanged(std::move(changed)), mPause(event, [this] {
        mPostponed = 0;
        mChanged();
      }) {}

bool FileWatch::set(const std::vector<Place>& places) {
  bool isNew = false;
  std::vector<std::unique_ptr<Watched>> watched;
  for (const auto& place : places) {
    struct stat folder {};
    if (stat(place.folder.c_str(), &folder) != 0) continue;
    auto entry =
        std::make_unique<Watched>(Watched{this, place, {folder.st_dev, folder.st_ino}, nullptr});
    sd_event_source* source = nullptr;
    const int added =
        sd_event_add_inotify(mEvent, &source, place.folder.c_str(), kMask, onEvent, entry.get());
    if (added < 0) continue;  // no such folder; or no memory: SIGHUP repairs this later
    entry->source.reset(source);
    isNew = isNew || std::none_of(mWatched.begin(), mWatched.end(), [&](const auto& old) {
              return old->place == place && old->folder == entry->folder;
            });
    watched.push_back(std::move(entry));
  }
  mWatched = std::move(watched);
  return isNew;
}

int FileWatch::onEvent(sd_event_source*, const inotify_event* event, void* watched) {
  const auto& entry = *static_cast<const Watched*>(watched);
  const bool isOther =
      event->len != 0 && !entry.place.name.empty() && entry.place.name != event->name;
  if (isOther) return 0;
  return guarded(entry.watch->mEvent, [&entry] { entry.watch->noticed(); });
}

void FileWatch::noticed() {
  if (mPause.isSet() && ++mPostponed > kMaxPostponed) return;
  mPause.set(kFilePause);
}

std::vector<FileWatch::Place> placesOf(const std::string& path) {
  std::vector<FileWatch::Place> places;
  std::string next = path;
  for (int links = 0; links < kMaxLinks; links++) {
    places.push_back(nearestPlace(next));
    std::array<char, PATH_MAX> target;
    const ssize_t length = readlink(next.c_str(), target.data(), target.size());
    if (length <= 0) break;
    const std::string_view text(target.data(), static_cast<std::size_t>(length));
    // The kernel follows a relative target from the link's folder.
    next = text.starts_with('/') ? std::string(text) : split(next).folder + "/" + std::string(text);
  }
  return places;
}

}  // namespace settings
