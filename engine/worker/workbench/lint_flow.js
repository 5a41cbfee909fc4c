// Control flow of a script: which statements can be reached, and which paths end without a value.
'use strict';

const completes = Symbol('completes');
const leaves = Symbol('leaves');

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
    case 'DoWhileStatement':
      return !isEndless(node) || leavesBy('BreakStatement', node.body);
    case 'LabeledStatement':
      return canComplete(node.body) || leavesBy('BreakStatement', node.body);
    default:
      return true;
  }
}

// Iterative, because a chain of `else if` may have thousands of links.
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
  if (cases.some((one) => one.consequent.some((inner) => leavesBy('BreakStatement', inner)))) return true;
  return cases.at(-1).consequent.every(canComplete);
}

function isEndless(loop) {
  return loop.type === 'ForStatement' && !loop.test ||
    (loop.test?.type === 'Literal' && Boolean(loop.test.value));
}

// Whether a `break` or a `continue` in `root` leaves the statement around it. One with a label also
// counts, because it may leave it.
function leavesBy(type, root) {
  if (root.type === type) return true;
  root[leaves] ??= {};
  root[leaves][type] ??= isLeftBy(type, root);
  return root[leaves][type];
}

function isLeftBy(type, root) {
  if (/^(For|While|DoWhile)/.test(root.type)) return false;
  if (root.type === 'SwitchStatement' && type === 'BreakStatement') return false;
  const alternates = []; // a chain of `else if` may be long
  for (let node = root; node?.type === 'IfStatement'; node = node.alternate) {
    if (leavesBy(type, node.consequent)) return true;
    alternates.push(node.alternate);
  }
  const inner = root.type === 'IfStatement' ? [alternates.at(-1)] : root[childrenKey];
  return inner.some((node) => node && /(Statement|Clause|Case)$/.test(node.type) && leavesBy(type, node));
}

// All lists of statements in a script.
function statementLists(tree) {
  const lists = tree.of('Program', 'BlockStatement', 'StaticBlock').map((node) => node.body);
  return [...lists, ...tree.of('SwitchCase').map((node) => node.consequent)];
}

// The steps of a list of statements. Each `if` and each `else if` of a chain is a step.
// [{ test, body, node, isSure }]; test is null for a statement that is no `if`. isSure: the code
// behind the chain runs only if the test was evaluated and was false, or if the body completed.
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
  return !canComplete(body) && !leavesBy('BreakStatement', body) && !leavesBy('ContinueStatement', body);
}
