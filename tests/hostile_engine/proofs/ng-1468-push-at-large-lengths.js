// push() and similar methods, on arrays and on array-like objects whose length is near 2^31, 2^32 and 2^53.
function FindProxyForURL(url, host) {
  [0x7ffffffe, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff, 2 ** 53 - 2, 2 ** 53 - 1].forEach(function (length) {
    [function (a) { a.push(1, 2, 3); }, function (a) { a.splice(length - 1, 0, 1, 2); },
     function (a) { Array.prototype.push.call({length: length}, 1, 2, 3); },
     function (a) { a[length] = 1; }, function (a) { [].push.apply(a, new Array(100).fill(0)); }
    ].forEach(function (call) {
      var array = [1, 2, 3];
      try { array.length = length; } catch (e) { }
      try { call(array); } catch (e) { }
      if (array[0] !== 1 && array[1] !== 2) throw new Error('lost');
      array.length = 0;
      array.push('again');
      if (array.join() !== 'again') throw new Error('wrong');
    });
  });
  return 'ok';
}
