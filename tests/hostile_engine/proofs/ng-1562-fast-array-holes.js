// Elements of fast arrays are deleted, and lengths change, while a function iterates over the
// arrays. grown() raises a length without adding elements; push() then appends after the holes.
function grown(count, length) {
  var array = Array.from({length: count}, function (_, i) { return {i: i}; });
  array.length = length;
  array.push('last');
  if (array.length !== length + 1 || array[length] !== 'last' || count in array) throw new Error('wrong');
  return array;
}
function FindProxyForURL(url, host) {
  for (var length = 5; length < 300; length += 7) JSON.stringify(grown(3, length));
  function change(array) { delete array[5]; array.length = 20; array.push(1, 2, 3); array[30] = 'far'; }
  var walks = ['forEach', 'map', 'filter', 'some', 'every', 'find', 'findLast', 'reduce', 'reduceRight',
               'flatMap', 'sort', 'findIndex'];
  for (var round = 0; round < 50; round++) {
    walks.forEach(function (name) {
      var array = Array.from({length: 64}, function (_, i) { return {i: i}; });
      var count = 0;
      try { array[name](function (x) { if (++count === 3 + round % 7) change(array); return 0; }, 0); } catch (e) { }
      try { array.concat(array).slice(2).reverse().flat().length; } catch (e) { }
      var spread = [...array, ...array];
      for (var entry of array.entries()) if (count++ < 200) change(array);
      array.unshift.apply(array, spread);
      array.copyWithin(0, 10);
    });
  }
  return 'ok';
}
