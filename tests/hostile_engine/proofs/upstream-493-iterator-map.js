// Iterator.prototype.map never frees the items of its iterator. The report was not available, but
// the engine has a test with this number, next to the tests for #488 and #492 of the same list.
// That test shows which function the report is about.
function* items(references) {
  for (let i = 0; i < 100; i++) {
    const item = { index: i };
    references.push(new WeakRef(item));
    yield item;
  }
}

function FindProxyForURL(url, host) {
  const references = [];
  let sum = 0;
  for (const index of items(references).map((item) => item.index)) sum += index;
  if (sum !== 4950) return 'the sum is ' + sum;
  const kept = references.filter((reference) => reference.deref() !== undefined).length;
  return kept === 0 ? 'ok' : kept + ' items are kept';
}
