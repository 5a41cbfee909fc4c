#include "engine/worker/script_error.h"

#include <charconv>
#include <optional>
#include <string>

#include "engine/worker/utf8.h"

namespace pac_worker {
namespace {

// Longest chain of prototypes that is searched for an error's name.
constexpr int kMostPrototypes = 8;

// Drops an exception that occurs during the description of another exception. Only exhausted memory
// can cause such an exception.
void dropException(JSContext* context) {
  JS_FreeValue(context, JS_GetException(context));
}

class Atom {
 public:
  Atom(JSContext* context, const char* name)
      : mContext(context), mAtom(JS_NewAtom(context, name)) {}
  ~Atom() { JS_FreeAtom(mContext, mAtom); }
  Atom(const Atom&) = delete;
  Atom& operator=(const Atom&) = delete;
  [[nodiscard]] JSAtom get() const { return mAtom; }

 private:
  JSContext* mContext;
  JSAtom mAtom;
};

// The text of a value, cut to the length of a log line. Nothing if the value is not a string.
std::optional<std::string> textOf(JSContext* context, JSValueConst value) {
  if (!JS_IsString(value)) return std::nullopt;
  const Text text(context, value);
  if (text) return std::string(text.view().substr(0, kErrorBytes * 8));
  dropException(context);
  return std::nullopt;
}

// The text of an object's own property. Nothing if the property is missing, has a getter or is not
// a string. The object must not be a Proxy.
std::optional<std::string> ownText(JSContext* context, JSValueConst object, const char* name) {
  const Atom atom(context, name);
  JSPropertyDescriptor property{};
  const int found = JS_GetOwnProperty(context, &property, object, atom.get());
  if (found < 0) dropException(context);
  if (found <= 0) return std::nullopt;
  const Value value(context, property.value);
  const Value getter(context, property.getter);
  const Value setter(context, property.setter);
  const bool accessor = (property.flags & JS_PROP_GETSET) != 0;
  return accessor ? std::nullopt : textOf(context, value.get());
}

// The stack trace that the engine recorded in the error. It is read with the engine's own getter,
// because a script can replace the property.
std::string stackOf(JSContext* context, JSValueConst error) {
  const JSValueConst getter = EngineRuntime::of(context).errorStack();
  const Value stack(context, JS_Call(context, getter, error, 0, nullptr));
  if (stack.isException()) dropException(context);
  return textOf(context, stack.get()).value_or("");
}

// The name of an error is usually a property of its prototype. Only plain objects are read, because
// reading them runs no code of the script.
std::string nameOf(JSContext* context, JSValueConst error) {
  const Value sample(context, JS_NewObject(context));
  if (sample.isException()) dropException(context);
  const JSClassID plain = JS_GetClassID(sample.get());
  if (std::optional<std::string> name = ownText(context, error, "name")) return *name;
  JSValue at = JS_DupValue(context, error);
  std::optional<std::string> name;
  for (int i = 0; i < kMostPrototypes && !name; ++i) {
    const Value current(context, at);
    at = JS_GetPrototype(context, current.get());
    if (!JS_IsObject(at) || JS_GetClassID(at) != plain) break;
    name = ownText(context, at, "name");
  }
  JS_FreeValue(context, at);
  return name.value_or("Error");
}

// The first line number of the script in a stack trace.
std::uint32_t lineIn(std::string_view stack) {
  const std::string place = std::string(kScriptName) + ':';
  const std::size_t found = stack.find(place);
  if (found == stack.npos) return 0;
  const std::string_view digits = stack.substr(found + place.size());
  std::uint32_t line = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), line);
  return line;
}

Problem describeError(JSContext* context, JSValueConst error) {
  const std::string message = ownText(context, error, "message").value_or("");
  Problem described = errorOf(nameOf(context, error) + (message.empty() ? "" : ": ") + message);
  described.line = lineIn(stackOf(context, error));
  return described;
}

}  // namespace

Problem errorOf(std::string_view message) {
  return {printableLine(message, kErrorBytes), 0};
}

Problem takeException(JSContext* context) {
  const Value thrown(context, JS_GetException(context));
  if (JS_IsError(thrown.get())) return describeError(context, thrown.get());
  if (JS_IsObject(thrown.get()) || JS_IsSymbol(thrown.get())) return errorOf("uncaught exception");
  const Text text(context, thrown.get());
  if (text)
    return errorOf("uncaught exception: " + std::string(text.view().substr(0, kErrorBytes)));
  dropException(context);
  return errorOf("uncaught exception");
}

}  // namespace pac_worker
