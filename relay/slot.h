// One connection's place among those that the relay holds.
#pragma once

#include <functional>
#include <memory>

namespace relay {

/// Calls its function when the last owner ends.
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
