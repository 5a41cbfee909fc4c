#include "tests/unit/pac/recorded_notices.h"

#include <atomic>
#include <utility>

#include "pac/service_callbacks.h"

namespace {
std::atomic<int> notices{0};
std::function<void()> listener;
}  // namespace

int noticesOfContent() {
  return notices;
}
void onContentNotice(std::function<void()> function) {
  listener = std::move(function);
}

void service_callbacks::notifyContentUpdated(ProxyManagerServiceImpl*) {
  ++notices;
  if (listener) listener();
}
