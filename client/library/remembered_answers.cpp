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
  mByUse.splice(mByUse.begin(), added);  // a place keeps its address
  mBytes += bytes;
  while (count() > mMaxAnswers || mBytes > mMaxBytes) forget(std::prev(mByUse.end()));
}

void RememberedAnswers::clear() {
  mByUrl.clear();
  mByUse.clear();
  mBytes = 0;
}

std::size_t RememberedAnswers::bytesOf(std::string_view url, const AnswerRef& answer) {
  // In the list two pointers; in the map a bucket, a pointer, a hash and the entry.
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
  auto& part = partOf(url);
  const Lock lock(part.mutex);
  return part.answers.find(url);
}

void SharedAnswers::add(std::string_view url, const AnswerRef& answer) {
  auto& part = partOf(url);
  const Lock lock(part.mutex);
  part.answers.add(url, answer);
}

void SharedAnswers::clear() {
  for (auto& part : mParts) {
    const Lock lock(part.mutex);
    part.answers.clear();
  }
}

/// The length and the last characters of a URL select the part. This is cheaper than the hash,
/// which is computed inside the lock.
SharedAnswers::Part& SharedAnswers::partOf(std::string_view url) {
  std::size_t sum = url.size();
  for (std::size_t n = 0; n < 8 && n < url.size(); ++n) {
    sum = sum * 31 + static_cast<unsigned char>(url[url.size() - 1 - n]);
  }
  return mParts[(sum ^ (sum >> 4U)) % kParts];
}

}  // namespace client::library
