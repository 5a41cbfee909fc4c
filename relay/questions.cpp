#include "relay/questions.h"

#include <algorithm>
#include <new>

namespace relay {

namespace {

Entry entryOf(const proxymanager_entry& entry) {
  std::string host = entry.host;
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
  return {entry.kind, entry.text, std::move(host), entry.port, entry.credentials};
}

/// Copies the answer and releases `held`.
Answer answerOf(proxymanager_status status, proxymanager_answer* held) {
  Answer answer;
  answer.status = status;
  if (status != PROXYMANAGER_OK) return answer;
  answer.mode = proxymanager_answer_mode(held);
  for (std::size_t index = 0; index < proxymanager_answer_count(held); index++) {
    const auto* const entry = proxymanager_answer_entry(held, index);
    if (entry->kind != PROXYMANAGER_UNUSABLE) answer.entries.push_back(entryOf(*entry));
  }
  proxymanager_answer_unref(held);
  return answer;
}

}  // namespace

std::string Entry::name() const {
  if (isDirect()) return "DIRECT";
  const char* scheme = "http";
  if (kind == PROXYMANAGER_HTTPS) scheme = "https";
  if (kind == PROXYMANAGER_SOCKS4) scheme = "socks4";
  if (kind == PROXYMANAGER_SOCKS4A) scheme = "socks4a";
  if (kind == PROXYMANAGER_SOCKS5) scheme = "socks5";
  if (kind == PROXYMANAGER_SOCKS5H) scheme = "socks5h";
  const bool isIpv6 = host.find(':') != std::string::npos;
  return std::string(scheme) + "://" + (isIpv6 ? "[" + host + "]" : host) + ":" +
         std::to_string(port);
}

struct Questions::Sent {
  Questions& questions;
  QuestionPtr question;
};

Questions::Questions(asio::io_context& loop)
    : mLoop(loop), mClient(proxymanager_client_new(PROXYMANAGER_WITH_CREDENTIALS)) {
  if (mClient == nullptr) throw std::bad_alloc();
}

Questions::~Questions() {
  proxymanager_client_free(mClient);
}

Task<Answer> Questions::ask(std::string url, uid_t user) {
  proxymanager_answer* held = nullptr;
  const auto status = proxymanager_get(mClient, url.c_str(), 0, &held);
  if (status != PROXYMANAGER_TOO_SLOW) co_return answerOf(status, held);

  auto& known = mQuestions[url];
  if (known == nullptr) {
    known = std::make_shared<Question>();
    known->url = std::move(url);
    mWaiting++;
  }
  const auto question = known;
  auto& users = question->users;
  if (!question->isTaken && std::find(users.begin(), users.end(), user) == users.end()) {
    users.push_back(user);
    mTurns[user].push_back(question);
  }
  Event done(mLoop);
  question->events.push_back(&done);
  sendMore();
  if (!question->isDone) co_await done.wait(kTurnTime);
  std::erase(question->events, &done);
  if (question->isDone) co_return question->answer;
  Answer none;
  none.status = PROXYMANAGER_TOO_SLOW;
  co_return none;
}

void Questions::sendMore() {
  while (mAsked < kMaxAsked && !mTurns.empty()) {
    auto turn = mTurns.upper_bound(mLastUser);
    if (turn == mTurns.end()) turn = mTurns.begin();
    const auto user = turn->first;
    const auto question = turn->second.front();
    turn->second.pop_front();
    if (turn->second.empty()) mTurns.erase(turn);
    if (question->isTaken) continue;
    question->isTaken = true;
    mWaiting--;
    // If no request waits for this question any more, the relay does not send it.
    if (question->events.empty()) {
      mQuestions.erase(question->url);
      continue;
    }
    mLastUser = user;
    send(question);
  }
}

void Questions::send(const QuestionPtr& question) {
  constexpr auto kLimit = std::chrono::milliseconds(kAnswerTime).count();
  auto sent = std::make_unique<Sent>(Sent{*this, question});
  mAsked++;
  const auto status =
      proxymanager_get_async(mClient, question->url.c_str(), kLimit, answered, sent.get(), nullptr);
  if (status == PROXYMANAGER_OK) {
    sent.release();  // answered() owns it now
    return;
  }
  mAsked--;
  end(question, answerOf(status, nullptr));
}

/// Runs on the client library's thread, or during the call proxymanager_get_async().
void Questions::answered(proxymanager_status status, proxymanager_answer* answer, void* context) {
  std::unique_ptr<Sent> sent(static_cast<Sent*>(context));
  if (status == PROXYMANAGER_CANCELLED) return;
  auto& loop = sent->questions.mLoop;
  asio::post(loop, [sent = std::move(sent), read = answerOf(status, answer)]() mutable {
    sent->questions.mAsked--;
    sent->questions.end(sent->question, std::move(read));
    sent->questions.sendMore();
  });
}

void Questions::end(const QuestionPtr& question, Answer answer) {
  question->answer = std::move(answer);
  question->isDone = true;
  mQuestions.erase(question->url);
  for (auto* const event : question->events) event->happen();
}

}  // namespace relay
