// The place that one connection takes in the connection limits.
#pragma once

#include <functional>
#include <memory>

namespace relay {

/// Calls its function on destruction.
class Slot {
 public:
  Slot() = default;
  explicit Slot(std::function<void()> atEnd) : mEnd(new std::function<void()>(std::move(atEnd))) {}

 private:
  struct Call {
    void operator()(std::function<void()>* end) const {
      (*end)();
      delete end;
    }
  };
  std::unique_ptr<std::function<void()>, Call> mEnd;
};

}  // namespace relay
