#include "engine/worker/engine_runtime.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>

#include "base/utf8.h"

namespace pac_worker {
namespace {

constexpr int kMostJobs = 1000;  // limit of promise jobs for each load and each evaluation
constexpr std::size_t kBlockOverhead = 8;  // bytes that the allocator adds to each block
// If the heap refuses a small block, the engine may recurse endlessly: it needs a block for the
// error, and then for an error about that error. So when the heap limit is reached, the heap still
// grants small blocks from a reserve. The reserve lasts until the next interrupt, which ends the
// script. Each interrupt adds the memory for its own error to the reserve.
constexpr std::size_t kSmallBlock = 4U << 10U;
constexpr std::size_t kSmallReserve = 8U << 20U;
constexpr std::size_t kErrorReserve = 64U << 10U;
constexpr std::size_t kMostReserve = 16U << 20U;
// The engine reads the clock at every ten thousandth call or loop iteration. If each iteration
// calls a long built-in function, minutes can pass until the engine reads the clock. So the heap
// also reads the clock whenever it has granted this many bytes. Each block counts as a little more
// than its size. Some time after the deadline, the heap refuses all blocks except small ones. The
// built-in functions then fail at once, and the engine soon reads the clock.
constexpr std::size_t kBytesBetweenLooks = 1U << 20U;
constexpr std::size_t kBlockCost = 1U << 10U;
constexpr std::chrono::milliseconds kStarvationGrace{100};

std::size_t weight(void* block) {
  return malloc_usable_size(block) + kBlockOverhead;
}

EngineRuntime& ownerOf(void* self) {
  return *static_cast<EngineRuntime*>(self);
}

std::size_t usableSize(const void* block) {
  return malloc_usable_size(const_cast<void*>(block));  // NOLINT: the C library's signature
}

}  // namespace

Text::Text(JSContext* context, JSValueConst value)
    : mContext(context), mText(JS_ToCStringLen(context, &mLength, value)) {
  EngineRuntime::of(context).countWork(mLength);
}

// The engine's own heap functions differ in one point: they do not report that they refused a
// block.
const JSMallocFunctions EngineRuntime::kHeapFunctions = {allocateZeroed, allocate, release,
                                                         reallocate, usableSize};

bool EngineRuntime::grants(std::size_t others, std::size_t size) {
  const auto fits = [&](std::size_t limit) { return others < limit && size <= limit - others; };
  if (isStarved(size) && size > kSmallBlock) return false;
  if (fits(mLimits.heapBytes)) return true;
  mMemoryRefused = true;
  return size <= kSmallBlock && fits(mLimits.heapBytes + mReserve);
}

void* EngineRuntime::allocate(void* owner, std::size_t size) {
  EngineRuntime& self = ownerOf(owner);
  void* const block = self.grants(self.mBytes, size) ? std::malloc(size) : nullptr;
  if (block != nullptr) self.mBytes += weight(block);
  return block;
}

void* EngineRuntime::allocateZeroed(void* owner, std::size_t count, std::size_t size) {
  EngineRuntime& self = ownerOf(owner);
  std::size_t bytes = 0;
  const bool fits = !__builtin_mul_overflow(count, size, &bytes) && self.grants(self.mBytes, bytes);
  void* const block = fits ? std::calloc(count, size) : nullptr;
  if (block != nullptr) self.mBytes += weight(block);
  return block;
}

void EngineRuntime::release(void* owner, void* block) {
  if (block == nullptr) return;
  ownerOf(owner).mBytes -= weight(block);
  std::free(block);
}

void* EngineRuntime::reallocate(void* owner, void* block, std::size_t size) {
  if (block == nullptr) return size == 0 ? nullptr : allocate(owner, size);
  if (size == 0) {
    release(owner, block);
    return nullptr;
  }
  EngineRuntime& self = ownerOf(owner);
  const std::size_t others = self.mBytes - weight(block);
  void* const moved = self.grants(others, size) ? std::realloc(block, size) : nullptr;
  if (moved == nullptr) return nullptr;
  self.mBytes = others + weight(moved);
  return moved;
}

// Makes a context with the globals that a PAC script has in a browser: only the globals of the
// JavaScript language. JS_NewContext() would add the clock `performance`, `atob`, `btoa` and
// `DOMException`. Modules, timers and files are in another library of the engine, which is not
// linked.
EngineRuntime::OwnedContext EngineRuntime::languageContext(JSRuntime* runtime) {
  OwnedContext context(JS_NewContextRaw(runtime));
  if (!context) return nullptr;
  constexpr int (*kIntrinsics[])(JSContext*) = {JS_AddIntrinsicBaseObjects, JS_AddIntrinsicDate,
                                                JS_AddIntrinsicEval,        JS_AddIntrinsicRegExp,
                                                JS_AddIntrinsicJSON,        JS_AddIntrinsicProxy,
                                                JS_AddIntrinsicMapSet,      JS_AddIntrinsicPromise,
                                                JS_AddIntrinsicTypedArrays, JS_AddIntrinsicWeakRef};
  for (const auto add : kIntrinsics)
    if (add(context.get()) != 0) return nullptr;
  const Value global(context.get(), JS_GetGlobalObject(context.get()));
  const auto remove = [&](JSAtom name) {
    const int gone = JS_DeleteProperty(context.get(), global.get(), name, 0);
    JS_FreeAtom(context.get(), name);
    return gone >= 0;
  };
  // The engine adds these two globals to the language. A PAC script in a browser does not have
  // them.
  for (const char* const name : {"queueMicrotask", "InternalError"})
    if (!remove(JS_NewAtom(context.get(), name))) return nullptr;
  // In the engine, the text of the global object is "[object global]". In a PAC script in a
  // browser, it is "[object Object]".
  const Value symbol(context.get(), JS_GetPropertyStr(context.get(), global.get(), "Symbol"));
  const Value tag(context.get(), JS_GetPropertyStr(context.get(), symbol.get(), "toStringTag"));
  if (!remove(JS_ValueToAtom(context.get(), tag.get()))) return nullptr;
  return context;
}

EngineRuntime::EngineRuntime(PacEnvironment& environment, const ScriptLimits& limits)
    : mEnvironment(environment), mLimits(limits), mRuntime(JS_NewRuntime2(&kHeapFunctions, this)) {
  if (!mRuntime) return;
  JS_SetMaxStackSize(mRuntime.get(), mLimits.stackBytes);
  JS_SetInterruptHandler(mRuntime.get(), interrupt, this);
  begin();
  mContext = languageContext(mRuntime.get());
  if (!mContext) return;
  JS_SetContextOpaque(mContext.get(), this);
  keepIntrinsics();
}

void EngineRuntime::keepIntrinsics() {
  JSContext* const context = mContext.get();
  const Value global(context, JS_GetGlobalObject(context));
  const Value constructor(context, JS_GetPropertyStr(context, global.get(), "Error"));
  const Value error(context, JS_GetPropertyStr(context, constructor.get(), "prototype"));
  const JSAtom name = JS_NewAtom(context, "stack");
  JSPropertyDescriptor stack{};
  if (JS_IsObject(error.get()) && JS_GetOwnProperty(context, &stack, error.get(), name) > 0) {
    mErrorStack = stack.getter;
    JS_FreeValue(context, stack.setter);
    JS_FreeValue(context, stack.value);
  }
  JS_FreeAtom(context, name);
}

EngineRuntime::~EngineRuntime() {
  if (!mContext) return;
  JS_FreeValue(mContext.get(), mErrorStack);
  JS_FreeValue(mContext.get(), mGeneralHelpers);
}

void EngineRuntime::begin() {
  JS_UpdateStackTop(mRuntime.get());
  mMemoryRefused = false;
  mReserve = kSmallReserve;
  mTimeIsUp = false;
  mAlertBytesLeft = mLimits.alertBytes;
  mStarving = false;
  mDeadline = std::chrono::steady_clock::now() + mLimits.time;
}

void EngineRuntime::runJobs() {
  for (int i = 0; i < kMostJobs && JS_IsJobPending(mRuntime.get()) && !timeIsUp(); ++i) {
    JSContext* context = nullptr;
    // An exception of a job is dropped, like an unhandled rejection.
    if (JS_ExecutePendingJob(mRuntime.get(), &context) < 0)
      JS_FreeValue(mContext.get(), JS_GetException(mContext.get()));
  }
}

bool EngineRuntime::timeIsUp() {
  mTimeIsUp = mTimeIsUp || std::chrono::steady_clock::now() >= mDeadline;
  return mTimeIsUp;
}

bool EngineRuntime::hasWorkedLong() {
  if (mBytesOfWork < kBytesBetweenLooks) return false;
  mBytesOfWork = 0;
  return true;
}

int EngineRuntime::interrupt(JSRuntime* /*runtime*/, void* runtime) {
  EngineRuntime& self = *static_cast<EngineRuntime*>(runtime);
  if (!self.mMemoryRefused && !self.timeIsUp()) return 0;
  self.mReserve = std::min(self.mReserve + kErrorReserve, kMostReserve);
  return 1;
}

bool EngineRuntime::isStarved(std::size_t size) {
  mBytesSinceLook += size + kBlockCost;
  if (mBytesSinceLook >= kBytesBetweenLooks) {
    mBytesSinceLook = 0;
    mStarving = std::chrono::steady_clock::now() >= mDeadline + kStarvationGrace;
  }
  return mStarving;
}

std::size_t EngineRuntime::bytesInUse() {
  JS_RunGC(mRuntime.get());
  return mBytes;
}

void EngineRuntime::alert(std::string_view text) {
  const std::string_view head = base::utf8Head(text, mAlertBytesLeft);
  if (head.empty()) return;
  mAlertBytesLeft = head.size() < text.size() ? 0 : mAlertBytesLeft - head.size();
  mEnvironment.alert(head);
}

}  // namespace pac_worker
