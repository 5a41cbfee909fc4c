// Evaluates a script with the engine that it is linked with.
#include <quickjs.h>
#include <string.h>

int main(void) {
  const char script[] = "[1, 2, 3].toReversed().join() === '3,2,1'";
  JSRuntime* const runtime = JS_NewRuntime();
  JSContext* const context = JS_NewContextRaw(runtime);
  JS_AddIntrinsicBaseObjects(context);
  JS_AddIntrinsicEval(context);
  const JSValue answer = JS_Eval(context, script, strlen(script), "script", JS_EVAL_TYPE_GLOBAL);
  const int right = JS_ToBool(context, answer) == 1;
  JS_FreeValue(context, answer);
  JS_FreeContext(context);
  JS_FreeRuntime(runtime);
  return right ? 0 : 1;
}
