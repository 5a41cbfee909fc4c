// `for (x of yield [])`: the loop iterates over the value of the yield.
function* once() { var seen = []; for (var x of yield []) seen.push(x); return seen; }
function* nested() { for (var x of yield []) for (var y of yield [x]) yield [x, y]; }
function FindProxyForURL(url, host) {
  for (var round = 0; round < 300; round++) {
    var generator = once();
    generator.next();
    if (generator.next([1, 2, 3]).value.join() !== '1,2,3') return 'wrong';
    var early = once();
    early.next();
    try { early.next(5); return 'wrong'; } catch (e) { }
    var deep = nested();
    deep.next();
    deep.next(['a']);
    deep.next(['b']);
    deep.return(round);
    try { once().throw(new Error('x')); } catch (e) { }
  }
  return 'ok';
}
