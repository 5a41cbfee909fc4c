// Control flow of a script: which statements can be reached, and which paths end without a value.
'use strict';

const completes = Symbol('completes');
const jumps = Symbol('jumps');

// Whether the code after the statement can be reached.
function canComplete(node) {
  node[completes] ??= findCompletion(node);
  return node[completes];
}

function findCompletion(node) {
  switch (node.type) {
    case 'ReturnStatement':
    case 'ThrowStatement':
    case 'BreakStatement':
    case 'ContinueStatement':
      return false;
    case 'BlockStatement':
      return node.body.every(canComplete);
    case 'IfStatement':
      return canCompleteIf(node);
    case 'SwitchStatement':
      return canCompleteSwitch(node);
    case 'TryStatement':
      if (node.finalizer && !canComplete(node.finalizer)) return false;
      return canComplete(node.block) || (node.handler !== null && canComplete(node.handler.body));
    case 'WhileStatement':
    case 'ForStatement':
      return !isEndless(node) || jumpsOutOf(node.body).has('break');
    case 'DoWhileStatement':
      return (!isEndless(node) && reachesTest(node)) || jumpsOutOf(node.body).has('break');
    case 'LabeledStatement':
      return canComplete(node.body) || jumpsOutOf(node.body).has(`break ${node.label.name}`);
    default:
      return true;
  }
}

// The function is not recursive, because a chain of `else if` may have thousands of links.
function canCompleteIf(node) {
  let next = node;
  while (next?.type === 'IfStatement') {
    if (canComplete(next.consequent)) return true;
    next = next.alternate;
  }
  return !next || canComplete(next);
}

function canCompleteSwitch(node) {
  const { cases } = node;
  if (!cases.some((one) => one.test === null)) return true;
  if (cases.some((one) => jumpsOutOf(one).has('break'))) return true;
  return cases.at(-1).consequent.every(canComplete);
}

function isEndless(loop) {
  return loop.type === 'ForStatement' && !loop.test ||
    (loop.test?.type === 'Literal' && Boolean(loop.test.value));
}

// Whether the test of a do-while loop can be reached.
function reachesTest(loop) {
  const out = jumpsOutOf(loop.body);
  if (canComplete(loop.body) || out.has('continue')) return true;
  for (let label = loop[parentOf]; label.type === 'LabeledStatement'; label = label[parentOf]) {
    if (out.has(`continue ${label.label.name}`)) return true;
  }
  return false;
}

function isLoop(node) {
  return /^(For|While|DoWhile)/.test(node.type);
}

// The jumps in `root` that leave `root`: a set of 'break', 'continue', 'break LABEL' and 'continue
// LABEL'.
function jumpsOutOf(root) {
  root[jumps] ??= findJumps(root);
  return root[jumps];
}

function findJumps(root) {
  if (root.type === 'BreakStatement' || root.type === 'ContinueStatement') {
    const word = root.type === 'BreakStatement' ? 'break' : 'continue';
    return new Set([root.label ? `${word} ${root.label.name}` : word]);
  }
  const found = new Set();
  const addFrom = (node) => {
    if (/(Statement|Clause|Case)$/.test(node?.type)) for (const jump of jumpsOutOf(node)) found.add(jump);
  };
  let rest = root;
  // This is a loop, because a chain of `else if` may be long.
  for (; rest?.type === 'IfStatement'; rest = rest.alternate) addFrom(rest.consequent);
  if (rest !== root) addFrom(rest);
  else for (const child of root[childrenKey]) addFrom(child);
  if (isLoop(root) || root.type === 'SwitchStatement') found.delete('break');
  if (isLoop(root)) found.delete('continue');
  if (root.type === 'LabeledStatement') {
    for (const word of ['break', 'continue']) found.delete(`${word} ${root.label.name}`);
  }
  return found;
}

// All lists of statements in a script.
function statementLists(tree) {
  const lists = tree.of('Program', 'BlockStatement', 'StaticBlock').map((node) => node.body);
  return [...lists, ...tree.of('SwitchCase').map((node) => node.consequent)];
}

// The steps of a list of statements. Each `if` and each `else if` of a chain is a step. The result
// is a list of { test, body, node, isSure }. test is null if the statement is no `if`. isSure: the
// code after the chain runs only if the test was evaluated and was false, or if the body completed.
function stepsOf(list) {
  const steps = [];
  for (const statement of list) {
    let next = statement;
    let isSure = true;
    while (next?.type === 'IfStatement') {
      steps.push({ test: next.test, body: next.consequent, node: next, isSure });
      isSure = isSure && endsFunction(next.consequent);
      next = next.alternate;
    }
    if (next) steps.push({ test: null, body: next, node: next, isSure });
  }
  return steps;
}

// Whether the body of the step always ends the function.
function endsFunction(body) {
  return !canComplete(body) && jumpsOutOf(body).size === 0;
}
