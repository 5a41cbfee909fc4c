#include "client/library/remembered_answers.h"

namespace client::library {

AnswerRef RememberedAnswers::find(std::string_view url) {
  const auto found = mByUrl.find(url);
  if (found == mByUrl.end()) return {};
  mByUse.splice(mByUse.begin(), mByUse, found->second);
  return found->second->answer;
}

void RememberedAnswers::add(std::string_view url, const AnswerRef& answer) {
  if (const auto found = mByUrl.find(url); found != mByUrl.end()) forget(found->second);
  const auto bytes = bytesOf(url, answer);
  if (bytes > mMaxBytes || mMaxAnswers == 0) return;
  std::list<Remembered> added;
  added.push_back({std::string(url), answer});
  mByUrl.emplace(added.front().url, added.begin());
  mByUse.splice(mByUse.begin(), added);  // the address of the element does not change
  mBytes += bytes;
  while (count() > mMaxAnswers || mBytes > mMaxBytes) forget(std::prev(mByUse.end()));
}

void RememberedAnswers::clear() {
  mByUrl.clear();
  mByUse.clear();
  mBytes = 0;
}

std::size_t RememberedAnswers::bytesOf(std::string_view url, const AnswerRef& answer) {
  // The list needs two pointers for an answer; the map needs a bucket, a pointer, a hash and the
  // entry.
  constexpr std::size_t kPlaces =
      4 * sizeof(void*) + sizeof(std::size_t) + sizeof(decltype(mByUrl)::value_type);
  return sizeof(Remembered) + kPlaces + url.size() + answer->bytes();
}

void RememberedAnswers::forget(Place place) {
  mBytes -= bytesOf(place->url, place->answer);
  mByUrl.erase(place->url);
  mByUse.erase(place);
}

AnswerRef SharedAnswers::find(std::string_view url) {
  auto& part = partOfThread(mParts);
  {
    const Lock lock(part.mutex);
    if (part.change == mChange.load(std::memory_order_acquire)) {
      if (auto copy = part.copies.find(url)) return copy;
    }
  }
  AnswerRef shared;
  unsigned long change = 0;
  {
    const Lock lock(mMutex);
    shared = mAnswers.find(url);
    change = mChange.load(std::memory_order_relaxed);
  }
  if (!shared) return shared;
  AnswerRef copy(new proxymanager_answer(shared->parsed()));
  const Lock lock(part.mutex);
  if (part.change != change) part.copies.clear();
  part.change = change;
  part.copies.add(url, copy);
  return copy;
}

void SharedAnswers::add(std::string_view url, const AnswerRef& answer) {
  const Lock lock(mMutex);
  mAnswers.add(url, answer);
}

void SharedAnswers::clear() {
  const Lock lock(mMutex);
  mAnswers.clear();
  mChange.fetch_add(1, std::memory_order_release);
}

/// Each new thread gets the next part. The thread_local number has no destructor, because the
/// library may be unloaded while the thread runs.
SharedAnswers::Part& SharedAnswers::partOfThread(std::array<Part, kParts>& parts) {
  static std::atomic<std::size_t> threads{0};
  thread_local const std::size_t number = threads.fetch_add(1, std::memory_order_relaxed);
  return parts[number % kParts];
}

}  // namespace client::library
