// Iterator.prototype.map keeps each item of its iterator for ever. The report was not available: the
// engine's own test of this number, beside those of #488 and #492 of the same list, shows the subject.
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
