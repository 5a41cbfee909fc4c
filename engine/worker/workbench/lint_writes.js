// The writes of a variable that a read may see: the analysis of reaching definitions, for lint. It
// follows the statements of one function, and loops, jumps and blocks in it.
'use strict';

// Limit of the writes that are examined for all reads of a script.
const mostWrites = 100000;

// The writes whose value the identifier `read` may have, as in the member `places` of a name. Null
// if they are not known, because another function writes the variable, or because the limit is
// reached. budget: { left }, the number of writes that may still be examined.
function writesSeenBy(name, read, budget) {
  const groups = writesByFunction(name);
  const home = read[functionOf];
  for (const owner of groups.keys()) if (owner !== home && owner.type !== 'Program') return null;
  const own = groups.get(home) ?? [];
  const near = writesBefore(name, own, read, budget);
  if (!near || near.isSure || name.scope === home) return near?.writes ?? null;
  // The variable may have a value of an earlier call of the function. The script's own code has run
  // to its end before the first call.
  const [program, outer] = [...groups].find(([owner]) => owner !== home) ?? [];
  const end = program && { start: program.end, end: program.end + 1, [parentOf]: program };
  const far = program ? writesBefore(name, outer, end, budget) : { writes: [] };
  return far && [...far.writes, ...own];
}

// Whether the function of `read` always writes the variable before this read.
function isWrittenBefore(name, read, budget) {
  const own = writesByFunction(name).get(read[functionOf]) ?? [];
  return Boolean(writesBefore(name, own, read, budget)?.isSure);
}

// The writes of each function, in source order.
function writesByFunction(name) {
  if (name.groups) return name.groups;
  name.groups = new Map();
  for (const place of [...name.places].sort((a, b) => a.id.start - b.id.start)) {
    const owner = place.id[functionOf];
    if (!name.groups.has(owner)) name.groups.set(owner, []);
    name.groups.get(owner).push(place);
  }
  return name.groups;
}

// The writes of `list` that the read may see, if both are in one function: { writes, isSure }.
// isSure: each path to the read has one of these writes. Null if the limit is reached.
function writesBefore(name, list, read, budget) {
  let base = -1; // the start of the last code before the read that always writes
  for (let at = indexFrom(list, read.start) - 1; at >= 0 && base < 0;) {
    if (--budget.left < 0) return null;
    const step = stepBefore(list[at].id, read);
    if (isSameBlock(name, list[at].id, read) && isPassed(step, name, read)) base = startOf(step);
    at = indexFrom(list, step.start) - 1;
  }
  let loop = null; // the outermost loop around the read that does not start before `base`
  for (let next = read[loopOf]; next && next.start >= base; next = next[loopOf]) loop = next;
  const begin = indexFrom(list, base);
  const end = indexFrom(list, loop ? loop.end : read.start);
  budget.left -= end - begin;
  if (budget.left < 0) return null;
  const writes = list.slice(begin, end).filter(({ id }) =>
    isSameBlock(name, id, read) && canLeadTo(id, read, name, loop));
  return { writes, isSure: base >= 0 };
}

// The index of the first write at or after the offset.
function indexFrom(list, offset) {
  let low = 0;
  for (let high = list.length; low < high;) {
    const middle = (low + high) >> 1;
    if (list[middle].id.start < offset) low = middle + 1;
    else high = middle;
  }
  return low;
}

// The outermost node around `id` that does not contain the read.
function stepBefore(id, read) {
  let step = id;
  while (!isCommon(step[parentOf], read)) step = step[parentOf];
  return step;
}

function isCommon(node, read) {
  return node.type === 'Program' || (node.start <= read.start && read.end <= node.end);
}

// Whether each path to the read passes `step`, and `step` always writes the variable.
function isPassed(step, name, read) {
  const parent = step[parentOf];
  if (/^For(In|Of)Statement$/.test(parent.type)) return step === parent.left && isCommon(parent.body, read);
  if (parent.type === 'ForStatement' && step === parent.init) return isInitialWrite(step, name);
  const isInList = Array.isArray(parent.body) || (parent.type === 'SwitchCase' && step !== parent.test);
  return isInList && alwaysWrites(step, name);
}

// The offset from which writes count after a passed step. The loop that the step begins may write
// again.
function startOf(step) {
  const parent = step[parentOf];
  return parent.type === 'ForStatement' ? parent.start : step.start;
}

// Whether the value of the write can still be there at the read. loop: a loop around both, or null.
// A path through an exception does not count.
function canLeadTo(id, read, name, loop) {
  let step = id;
  for (; !isCommon(step[parentOf], read); step = step[parentOf]) if (isLost(step, name)) return false;
  if (isDirect(step, id, read)) return loop !== null || !endsFunction(step);
  if (loop === null || !isCommon(loop, id)) return false;
  // The loop must start another round.
  for (; !isLoop(step); step = step[parentOf]) if (isLost(step, name)) return false;
  return true;
}

// Whether code after the statement cannot see the value that the variable gets in the statement.
function isLost(node, name) {
  const isStatement = /(Statement|VariableDeclaration)$/.test(node.type);
  return isStatement && (endsFunction(node) || isOverwritten(node, name));
}

// Whether the read may follow `step`, which contains the write.
function isDirect(step, id, read) {
  const parent = step[parentOf];
  if (id.start >= read.start) return false;
  if (/^(If|Conditional)/.test(parent.type)) return step !== parent.consequent;
  if (parent.type === 'AssignmentExpression') return step !== parent.left;
  return parent.type !== 'VariableDeclarator';
}

// Whether the statements after `statement`, in the same list, always write the variable.
function isOverwritten(statement, name) {
  const { body, consequent } = statement[parentOf];
  const list = Array.isArray(body) ? body : consequent;
  if (!Array.isArray(list) || jumpsOutOf(statement).size > 0) return false;
  name.overwritten ??= new Map();
  if (!name.overwritten.has(list)) name.overwritten.set(list, overwrittenIn(list, name));
  return name.overwritten.get(list).has(statement);
}

// The statements of the list that are followed by a write on each path.
function overwrittenIn(list, name) {
  const found = new Set();
  for (let i = list.length - 2; i >= 0; i--) {
    const exits = exitsWithoutWrite(list[i + 1], name);
    if (exits.size === 0 || (exits.size === 1 && exits.has('end') && found.has(list[i + 1]))) found.add(list[i]);
  }
  return found;
}

// Whether two identifiers with this name mean the same variable.
function isSameBlock(name, one, other) {
  if (name.blocks.size === 0) return true;
  const declaring = (id) => {
    let node = id;
    while (node !== name.scope && !name.blocks.has(node)) node = node[parentOf];
    return node;
  };
  return declaring(one) === declaring(other);
}

// Whether the statement writes the variable on each path that completes it.
function alwaysWrites(node, name) {
  return !exitsWithoutWrite(node, name).has('end');
}

// How control can leave the statement if it has not written the variable: a set of 'end' and of
// jumps as in jumpsOutOf().
function exitsWithoutWrite(node, name) {
  name.exits ??= new Map();
  if (!name.exits.has(node)) name.exits.set(node, findExits(node, name));
  return name.exits.get(node);
}

function findExits(node, name) {
  if (name.blocks.has(node)) return new Set(['end', ...jumpsOutOf(node)]);
  if (isLoop(node)) return exitsOfLoop(node, name);
  const exitsOf = (part) => exitsWithoutWrite(part, name);
  switch (node.type) {
    case 'ReturnStatement':
    case 'ThrowStatement':
      return new Set();
    case 'BreakStatement':
    case 'ContinueStatement':
      return jumpsOutOf(node);
    case 'ExpressionStatement':
      return new Set(isWriteOf(node.expression, name) ? [] : ['end']);
    case 'VariableDeclaration':
      return new Set(isDeclaredValue(node, name) ? [] : ['end']);
    case 'BlockStatement':
      return exitsOfList(node.body, name);
    case 'IfStatement': {
      const exits = new Set();
      let next = node;
      for (; next?.type === 'IfStatement'; next = next.alternate) addAll(exits, exitsOf(next.consequent));
      return next ? addAll(exits, exitsOf(next)) : exits.add('end');
    }
    case 'SwitchStatement':
      return exitsOfSwitch(node, name);
    case 'TryStatement': {
      const exits = new Set(exitsOf(node.block));
      if (node.handler) addAll(exits, exitsOf(node.handler.body));
      const last = node.finalizer ? exitsOf(node.finalizer) : null;
      return last === null ? exits : last.has('end') ? addAll(exits, last) : last;
    }
    case 'LabeledStatement':
      return replaced(exitsOf(node.body), `break ${node.label.name}`, `continue ${node.label.name}`);
    default:
      return new Set(['end', ...jumpsOutOf(node)]);
  }
}

function exitsOfList(list, name) {
  const exits = new Set();
  for (const statement of list) {
    const own = exitsWithoutWrite(statement, name);
    addAll(exits, own);
    exits.delete('end');
    if (!own.has('end')) return exits;
  }
  return exits.add('end');
}

// Control can enter the switch at each case.
function exitsOfSwitch({ cases }, name) {
  const exits = new Set(cases.some(({ test }) => test === null) ? [] : ['end']);
  cases.forEach(({ consequent }, index) => {
    const own = new Set(exitsOfList(consequent, name));
    if (index < cases.length - 1) own.delete('end'); // continues in the next case
    addAll(exits, own);
  });
  return replaced(exits, 'break');
}

function exitsOfLoop(loop, name) {
  if (loop.init && isInitialWrite(loop.init, name)) return new Set();
  const exits = new Set(exitsWithoutWrite(loop.body, name));
  const isDo = loop.type === 'DoWhileStatement';
  const reachesEnd = !isEndless(loop) && (!isDo || exits.has('end') || exits.has('continue'));
  exits.delete('continue');
  exits.delete('end');
  if (reachesEnd) exits.add('end');
  return replaced(exits, 'break');
}

function addAll(set, items) {
  for (const item of items) set.add(item);
  return set;
}

// The exits, with 'end' in place of the given jumps.
function replaced(exits, ...words) {
  const result = new Set(exits);
  for (const word of words) if (result.delete(word)) result.add('end');
  return result;
}

// Whether the first part of a `for` always writes the variable.
function isInitialWrite(init, name) {
  return init.type === 'VariableDeclaration' ? isDeclaredValue(init, name) : isWriteOf(init, name);
}

function isDeclaredValue({ declarations }, name) {
  return declarations.some(({ id, init }) => init !== null &&
    (namesOf(id).some((one) => one.name === name.text) || isWriteOf(init, name)));
}

// Whether the expression always assigns the variable.
function isWriteOf(expression, name) {
  for (let node = expression; node; node = node.type === 'AssignmentExpression' ? node.right : null) {
    if (node.type === 'SequenceExpression') return node.expressions.some((one) => isWriteOf(one, name));
    if (node.type === 'UpdateExpression') return node.argument.name === name.text;
    if (node.type !== 'AssignmentExpression' || /^(\|\||&&|\?\?)=$/.test(node.operator)) return false;
    if (namesOf(node.left).some((id) => id.name === name.text)) return true;
  }
  return false;
}
