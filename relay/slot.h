// Counts one connection toward the connection limits until the connection ends.
#pragma once

#include <functional>
#include <memory>

namespace relay {

/// Calls the function `atEnd` when the slot is destroyed.
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
