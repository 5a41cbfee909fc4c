// Makes each allocation during a question fail once. The caller gets an error, and the next
// question works as if the failure had not happened.
#include <string>
#include <vector>

#include "client/library/proxy_answer.h"
#include "client/library/remembered_answers.h"
#include "tests/support/failing_allocator.h"
#include "tests/unit/client/library/library_test.h"

namespace {

using client::library::AnswerRef;
using client::library::RememberedAnswers;

// Longer than a text that a std::string stores without an allocation.
const std::string kLongText(100, 'x');

TEST(LibraryFaultsTest, AreBorneByWhatIsRemembered) {
  const std::vector<std::string> texts{"pacurl", "PROXY " + kLongText + ":1", "SOCKS " + kLongText};
  EXPECT_GE(failEachAllocation([&] {
              RememberedAnswers remembered(2, 100'000);
              for (const char c : {'a', 'b', 'c'}) {
                const AnswerRef answer(new proxymanager_answer(*client::parseAnswer(texts)));
                remembered.add(kLongText + c, answer);
              }
              const auto found = remembered.find(kLongText + 'c');
              return found ? std::string(found->entries()[1].url) : "";
            }),
            20);
}

class AskingFaultsTest : public LibraryTest {
 protected:
  /// Repeats a question. In the first try, all allocations fail. In each further try, one more
  /// allocation succeeds before the others fail. @return how many times the question failed
  template <typename Ask>
  int failEach(Ask asked) {
    for (int successes = 0;; ++successes) {
      const auto url = kUrl + kLongText + std::to_string(successes);
      failAllocationsAfter(successes, Failing::kAll);
      const auto status = asked(url.c_str());
      if (!allowAllocations()) {
        EXPECT_EQ(status, PROXYMANAGER_OK);
        return successes;
      }
      EXPECT_EQ(status, PROXYMANAGER_NO_MEMORY);
      ask(url);
    }
  }
};

TEST_F(AskingFaultsTest, AreBorneByAQuestionThatIsWaitedFor) {
  EXPECT_GE(failEach([this](const char* url) {
              proxymanager_answer* answer = nullptr;
              const auto status = proxymanager_get(client.raw(), url, 60'000, &answer);
              proxymanager_answer_unref(answer);
              return status;
            }),
            3);
}

TEST_F(AskingFaultsTest, AreBorneByAQuestionWithACallback) {
  const auto callback = [](proxymanager_status, proxymanager_answer* answer, void*) {
    proxymanager_answer_unref(answer);
  };
  EXPECT_GE(failEach([&](const char* url) {
              return proxymanager_get_async(client.raw(), url, 60'000, callback, nullptr, nullptr);
            }),
            3);
}

TEST_F(AskingFaultsTest, AreBorneByAWatchAndByTheClientItself) {
  const auto callback = [](proxymanager_change, void*) {};
  EXPECT_EQ(failEach([&](const char*) {
              proxymanager_id id = 0;
              const auto status = proxymanager_watch(client.raw(), callback, nullptr, &id);
              proxymanager_unwatch(client.raw(), id);
              return status;
            }),
            1);
  EXPECT_GE(failEach([&](const char*) {
              auto* const made = proxymanager_client_new(0);
              proxymanager_client_free(made);
              return made == nullptr ? PROXYMANAGER_NO_MEMORY : PROXYMANAGER_OK;
            }),
            1);
}

}  // namespace
