// The five functions of pac.h: a thin C interface over Engine, with the queue of pac_find_proxy. No
// exception leaves these functions.
#include "engine/pac.h"

#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/log_line.h"
#include "engine/pac_engine.h"

namespace {

// Maximum number of queued questions. A further question is dropped. The queue is full only if the
// caller does not call pac_run_callbacks() often enough.
constexpr std::size_t kMaxQueued = 256;

struct Question {
  std::string url;
  std::optional<std::string> host;  ///< no value if the caller passed no host
  pac_result found;
  void* context;
};

/// Runs `body`. Catches and logs an exception (memory is exhausted).
template <typename Body>
void guarded(const char* function, Body&& body) noexcept {
  try {
    std::forward<Body>(body)();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "pac_engine: %s: %s", function, error.what());
  }
}

}  // namespace

struct pac {
  std::unique_ptr<pac_engine::Engine> engine;
  pac_wakeup wakeup = nullptr;
  void* wakeupContext = nullptr;
  std::deque<Question> queue;
};

namespace {

/// @return a text that the caller owns, or null if there is no answer
char* evaluated(pac& handle, const char* url, const char* host) {
  const auto reply = handle.engine->evaluate(url, host == nullptr ? "" : host);
  if (reply.result) return strdup(reply.result->c_str());
  logLine(LOG_WARNING, "pac_engine: no answer: %s", pac_engine::describe(reply.problem).c_str());
  return nullptr;
}

void deliver(pac& handle, Question question) {
  char* const host = question.host ? question.host->data() : nullptr;
  char* const result = evaluated(handle, question.url.c_str(), host);
  if (result != nullptr) question.found(result, question.context, host);
}

}  // namespace

pac* pac_init(const char* script, int option, pac_wakeup wakeup, void* context) {
  if (script == nullptr) return nullptr;
  pac* handle = nullptr;
  guarded("pac_init", [&] {
    pac_engine::Options options;
    options.names.offline = option == PAC_OPTION_OFFLINE;
    pac_engine::Problem refused;
    auto engine = pac_engine::Engine::load(script, std::move(options), refused);
    if (engine) {
      handle = new pac{std::move(engine), wakeup, context, {}};
    } else {
      logLine(LOG_ERR, "pac_engine: script refused: %s", pac_engine::describe(refused).c_str());
    }
  });
  return handle;
}

void pac_find_proxy(pac* engine, const char* url, const char* host, pac_result found,
                    void* context) {
  if (engine == nullptr || url == nullptr || found == nullptr) return;
  guarded("pac_find_proxy", [&] {
    if (engine->queue.size() == kMaxQueued) {
      logLine(LOG_WARNING, "pac_engine: %zu questions are queued, one more is dropped", kMaxQueued);
      return;
    }
    engine->queue.push_back(
        {url, host == nullptr ? std::nullopt : std::optional<std::string>(host), found, context});
    if (engine->wakeup != nullptr) engine->wakeup(engine->wakeupContext);
  });
}

void pac_find_proxy_sync_n(pac* engine, const char* url, const char* host, char** result) {
  if (result == nullptr) return;
  *result = nullptr;
  if (engine == nullptr || url == nullptr) return;
  guarded("pac_find_proxy_sync_n", [&] { *result = evaluated(*engine, url, host); });
}

void pac_run_callbacks(pac* engine) {
  if (engine == nullptr) return;
  // A callback may queue a further question. The wake-up callback has then been called again, so
  // the next call of this function answers the further question.
  for (auto left = engine->queue.size(); left > 0; --left) {
    guarded("pac_run_callbacks", [&] {
      auto question = std::move(engine->queue.front());
      engine->queue.pop_front();
      deliver(*engine, std::move(question));
    });
  }
}

void pac_free(pac* engine) {
  delete engine;
}
