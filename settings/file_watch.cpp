#include "settings/file_watch.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <utility>

namespace settings {

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM |
                                IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

FileWatch::Place split(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace

FileWatch::FileWatch(sd_event* event, std::function<void()> changed)
    : mEvent(event), mChanged(std::move(changed)), mPause(event, [this] {
        mPostponed = 0;
        mChanged();
      }) {}

void FileWatch::set(const std::vector<Place>& places) {
  std::vector<std::unique_ptr<Watched>> watched;
  for (const auto& place : places) {
    auto entry = std::make_unique<Watched>(Watched{this, place, nullptr});
    sd_event_source* source = nullptr;
    const int added =
        sd_event_add_inotify(mEvent, &source, place.folder.c_str(), kMask, onEvent, entry.get());
    if (added < 0) continue;  // no such folder, or memory is exhausted: then SIGHUP helps
    entry->source.reset(source);
    watched.push_back(std::move(entry));
  }
  mWatched = std::move(watched);
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
  std::vector<FileWatch::Place> places{split(path)};
  const std::unique_ptr<char, decltype(&std::free)> target(realpath(path.c_str(), nullptr),
                                                           &std::free);
  if (target && path != target.get()) places.push_back(split(target.get()));
  return places;
}

}  // namespace settings
