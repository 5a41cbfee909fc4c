// Array methods make copies, while getters and proxies change the arrays and fill the heap. Neither
// the garbage collector nor the script may see elements that are not written yet.
function clutter() {
  var rings = [];
  for (var i = 0; i < 40; i++) { var ring = {}; ring.self = ring; rings.push([ring, 'y'.repeat(i)]); }
  return rings.length;
}
function tricky(length, at, action) {
  var array = [];
  for (var i = 0; i < length; i++) array.push({i: i});
  Object.defineProperty(array, at, {get: function () { action(array); return {i: at}; },
                                    configurable: true});
  return array;
}
function attempts(array) {
  return [function () { return array.with(0, 1); },
          function () { return array.toReversed(); },
          function () { return array.toSpliced(1, 2, 'a', 'b', 'c'); },
          function () { return array.toSorted(function (a, b) { clutter(); return 0; }); }];
}
var actions = [clutter,
               function (array) { clutter(); array.length = 0; },
               function (array) { array.length = 3; clutter(); throw new Error('out'); },
               function (array) { for (var i = 0; i < 300; i++) array.push(i); }];
function FindProxyForURL(url, host) {
  for (var round = 0; round < 2; round++) {
    actions.forEach(function (action) {
      for (var which = 0; which < 4; which++) {
        var plain = tricky(64, 10 + round * 40, action);
        var proxied = new Proxy(tricky(64, 5, clutter), {get: function (target, key) {
          if (key === '9') action(target);
          return Reflect.get(target, key);
        }});
        [plain, proxied].forEach(function (array) {
          try { String(JSON.stringify(attempts(array)[which]())).length; } catch (e) { e.message; }
        });
      }
    });
  }
  return 'ok';
}
