// The engine's runtime with its one context, and the limits of the script in it: heap, stack, time.
//
// Types of the engine occur in this header, script_helpers.h and script_error.h. Only the sources
// of these headers and script_engine.cpp use these types.
#pragma once

#include <quickjs.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

// The engine's macros for constants are compound literals, for which clang warns in C++.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

#include "engine/worker/script_engine.h"

namespace pac_worker {

/// Owns one value of the engine.
class Value {
 public:
  Value(JSContext* context, JSValue value) : mContext(context), mValue(value) {}
  ~Value() { JS_FreeValue(mContext, mValue); }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  [[nodiscard]] JSValueConst get() const { return mValue; }
  [[nodiscard]] bool isException() const { return JS_IsException(mValue); }

 private:
  JSContext* mContext;
  JSValue mValue;
};

/// The text of a value, in UTF-8. Unpaired surrogates are encoded like other code points.
class Text {
 public:
  /// Converts `value` as JavaScript's String() does, so an object's own toString may run.
  Text(JSContext* context, JSValueConst value);
  ~Text() {
    if (mText != nullptr) JS_FreeCString(mContext, mText);
  }
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;

  /// False if the conversion threw; the exception is then pending.
  explicit operator bool() const { return mText != nullptr; }
  [[nodiscard]] std::string_view view() const { return {mText, mLength}; }

 private:
  JSContext* mContext;
  std::size_t mLength = 0;
  const char* mText;
};

class EngineRuntime {
 public:
  /// @param environment outlives the runtime
  EngineRuntime(PacEnvironment& environment, const ScriptLimits& limits);
  ~EngineRuntime();
  EngineRuntime(const EngineRuntime&) = delete;
  EngineRuntime& operator=(const EngineRuntime&) = delete;

  /// Null if the heap limit is too low even for an empty context.
  [[nodiscard]] JSContext* context() const { return mContext.get(); }
  static EngineRuntime& of(JSContext* context) {
    return *static_cast<EngineRuntime*>(JS_GetContextOpaque(context));
  }

  /// Starts the clock and the counts of one load or evaluation. The stack limit counts from the
  /// present end of the calling thread's stack.
  void begin();
  /// Runs the jobs that promises have queued, in order, kMostJobs at most. This number is enough
  /// for every useful script, and limits the cost of an endless chain of jobs.
  void runJobs();
  /// Counts bytes that are processed outside the engine's loops.
  void countWork(std::size_t bytes) { mBytesOfWork += bytes; }
  /// Returns true if enough bytes were counted that the clock should be read. The count then begins
  /// again at 0.
  bool hasWorkedLong();
  /// True if the time limit was passed since begin(), even if the script was not interrupted.
  bool timeIsUp();
  /// True if the heap limit was passed since begin(). The script is then interrupted like a script
  /// whose time is up.
  [[nodiscard]] bool memoryWasRefused() const { return mMemoryRefused; }
  /// Collects garbage. @return the bytes that are still in use
  std::size_t bytesInUse();

  [[nodiscard]] PacEnvironment& environment() const { return mEnvironment; }
  /// Logs an alert's text. The text is cut if this evaluation would log more than allowed.
  void alert(std::string_view text);

  /// The getter of an error's stack trace; it runs no code of the script.
  [[nodiscard]] JSValueConst errorStack() const { return mErrorStack; }
  /// The value of helpers.js, which is evaluated when a helper first needs it; undefined before
  /// that. Owned by the runtime.
  [[nodiscard]] JSValue& generalHelpers() { return mGeneralHelpers; }

 private:
  struct RuntimeDeleter {
    void operator()(JSRuntime* runtime) const { JS_FreeRuntime(runtime); }
  };
  struct ContextDeleter {
    void operator()(JSContext* context) const { JS_FreeContext(context); }
  };

  using OwnedContext = std::unique_ptr<JSContext, ContextDeleter>;

  /// Keeps the built-in functions that the script may replace later.
  void keepIntrinsics();
  /// A context with only the language; null if the heap limit is too low for it.
  static OwnedContext languageContext(JSRuntime* runtime);

  static const JSMallocFunctions kHeapFunctions;
  static void* allocate(void* self, std::size_t size);
  static void* allocateZeroed(void* self, std::size_t count, std::size_t size);
  static void release(void* self, void* block);
  static void* reallocate(void* self, void* block, std::size_t size);
  static int interrupt(JSRuntime* runtime, void* self);
  /// Whether a block of `size` bytes may be allocated while `others` bytes are allocated already.
  bool grants(std::size_t others, std::size_t size);
  /// Counts a request for a block of `size` bytes. True if the time limit was passed so long ago
  /// that the heap refuses large blocks.
  bool isStarved(std::size_t size);

  PacEnvironment& mEnvironment;
  const ScriptLimits mLimits;
  std::size_t mBytes = 0;  ///< allocated for the engine, with the allocator's overhead
  bool mMemoryRefused = false;
  std::size_t mReserve = 0;  ///< bytes past the heap limit, only for small blocks
  bool mTimeIsUp = false;
  bool mStarving = false;
  std::size_t mBytesSinceLook = 0;
  std::size_t mBytesOfWork = 0;
  std::chrono::steady_clock::time_point mDeadline;
  std::size_t mAlertBytesLeft = 0;
  std::unique_ptr<JSRuntime, RuntimeDeleter> mRuntime;
  OwnedContext mContext;
  JSValue mGeneralHelpers = JS_UNDEFINED;
  JSValue mErrorStack = JS_UNDEFINED;
};

}  // namespace pac_worker
