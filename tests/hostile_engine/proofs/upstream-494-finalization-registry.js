// Objects with finalizers are freed while the heap limit is near and the garbage collector runs.
// The hole opens only if the heap refuses the block for the job of a finalizer. Here, no script can
// cause this: small blocks come from a reserve past the limit (engine_runtime.cpp).
var registry = new FinalizationRegistry(function (held) { held.ring = [held]; fill(); });
function fill() { var kept = []; for (var i = 0; i < 500; i++) kept.push({i: i, ring: kept}); }
function FindProxyForURL(url, host) {
  var kept = [];
  try {
    for (;;) {
      for (var i = 0; i < 40; i++) {
        var object = {ring: null};
        object.ring = object;
        registry.register(object, {held: object.i}, object);
        if (i % 3 === 0) registry.unregister(object);
        new WeakRef(object).deref();
      }
      kept.push('z'.repeat(2000000) + kept.length);
    }
  } catch (e) { kept = null; fill(); }
  return 'ok';
}
