// Finds the calls that look up a name, and computes the cost of an evaluation.
'use strict';

const lookupHelpers = ['dnsResolve', 'isResolvable', 'dnsResolveEx', 'isResolvableEx', 'isInNet'];
const quad = /^\d{1,3}(\.\d{1,3}){3}$/;

// Whether a pattern is made of digits, dots, groups and counts, from "^" to "$".
function isAddressPattern(pattern) {
  if (!/^\^(?:\\[d.]|\.(?![*+{])|\[(?:[\d.-]|\\[d.])+\]|\(\?:|\{[\d,]*\}|[\d()|?*+])+\$$/.test(pattern)) return false;
  // If there is a "|" outside of all groups, one alternative of the pattern has no "^" or no "$".
  let outside = pattern;
  for (let inner = ''; inner !== outside; outside = outside.replace(/\([^()]*\)/g, '')) inner = outside;
  return !outside.includes('|');
}

// Whether the comparison tests for a match, like `call == true`, `text.search(x) >= 0` or
// `text.match(x) != null`.
function isComparisonWithHit({ operator, right }) {
  if (/^[=]==?$/.test(operator)) return right.type === 'Literal' && (right.value === true || right.value === 0);
  if (/^!==?$/.test(operator)) {
    return right.type === 'UnaryExpression' || (right.type === 'Literal' && (right.value === null || right.value === false));
  }
  return operator === '>' || operator === '>=';
}

class Lookups {
  constructor(tree, hosts) {
    this.tree = tree;
    this.hosts = hosts;
    this.named = new Map();
    this.marked = new Set(); // nodes with a lookup in them
    this.markAll();
  }

  // Marks the nodes that contain a lookup, or a call of a function that contains a lookup.
  markAll() {
    const callsOf = new Map();
    const calls = this.tree.of('CallExpression');
    for (const call of calls) {
      const called = this.tree.calledFunction(call);
      if (called && !callsOf.has(called)) callsOf.set(called, []);
      if (called) callsOf.get(called).push(call);
    }
    const open = calls.filter((call) => this.nameOf(call) !== null);
    while (open.length > 0) {
      for (let node = open.pop(); node && !this.marked.has(node); node = node[parentOf]) {
        this.marked.add(node);
        if (!functionTypes.has(node.type)) continue;
        pushAll(open, callsOf.get(node) ?? []);
        break;
      }
    }
  }

  // The lookup of a helper call: a name, 'host', or the source of the argument. Null if the call
  // looks up nothing.
  nameOf(call) {
    if (!this.named.has(call)) this.named.set(call, this.findName(call));
    return this.named.get(call);
  }

  findName(call) {
    if (!this.tree.isHelper(call, ...lookupHelpers) || call.arguments.length === 0) return null;
    const [given] = call.arguments;
    const isNet = call.callee.name === 'isInNet';
    if (given.type === 'Literal') {
      return typeof given.value !== 'string' || quad.test(given.value) ? null : given.value;
    }
    if (this.tree.subjectOf(given) === 'host') return this.isKnownAddress(call) ? null : 'host';
    // isInNet usually gets a known address. The other helpers get names.
    return isNet ? this.knownNames(given)[0] ?? null : this.tree.script.sourceOf(given, 80);
  }

  // The texts of the expression that are names.
  knownNames(node) {
    const texts = this.tree.textsOf(node).map(({ text }) => text);
    return texts.filter((text) => text !== null && /^[\w.-]+$/.test(text) && !quad.test(text));
  }

  // Whether the call runs only for addresses: after isValidIpAddress(host) or a regular expression
  // of digits.
  isKnownAddress(call) {
    let child = call;
    for (let node = call[parentOf]; node && !functionTypes.has(node.type); child = node, node = node[parentOf]) {
      if (node.type === 'LogicalExpression' && child === node.right) {
        if (node.operator === '&&' && this.asksForAddress(node.left)) return true;
        if (node.operator === '||' && this.asksForName(node.left)) return true;
      }
      if (/^(If|Conditional)/.test(node.type)) {
        if (child === node.consequent && this.asksForAddress(node.test)) return true;
        if (child === node.alternate && this.asksForName(node.test)) return true;
      }
      if (node.type === 'BlockStatement' && this.leftForNames(node.body, child)) return true;
    }
    return false;
  }

  // Whether a statement before `child` leaves the function if the host is not an address.
  leftForNames(list, child) {
    return list.slice(0, Math.min(list.indexOf(child), 200)).some((statement) =>
      statement.type === 'IfStatement' && endsFunction(statement.consequent) &&
      this.asksForName(statement.test));
  }

  // Whether the test is false for each host that is an address.
  asksForName(test) {
    return operandsOf(test, '||').some((operand) => operand.type === 'UnaryExpression' &&
      operand.operator === '!' && this.asksForAddress(operand.argument));
  }

  // Whether the test is true only for addresses.
  asksForAddress(test, depth = 0) {
    return depth < 5 && operandsOf(test, '&&').some((operand) => this.isAddressTest(operand, depth + 1));
  }

  isAddressTest(node, depth) {
    switch (node.type) {
      case 'LogicalExpression':
        return operandsOf(node).every((operand) => this.asksForAddress(operand, depth));
      case 'UnaryExpression':
        return node.operator === '!' && node.argument.type === 'UnaryExpression' &&
          node.argument.operator === '!' && this.asksForAddress(node.argument.argument, depth);
      case 'BinaryExpression':
        return isComparisonWithHit(node) && this.asksForAddress(node.left, depth);
      case 'Identifier': {
        const value = this.tree.onlyValue(node);
        return value !== null && !functionTypes.has(value.type) && this.asksForAddress(value, depth);
      }
      case 'CallExpression':
        return this.isAddressCall(node, depth);
      default:
        return false;
    }
  }

  isAddressCall(call, depth) {
    if (this.tree.isHelper(call, 'isValidIpAddress')) return true;
    const called = this.tree.calledFunction(call);
    if (called) {
      const values = this.tree.returnsOf(called).map(({ argument }) => argument);
      const hits = values.filter((value) => value && !(value.type === 'Literal' && !value.value));
      return hits.length > 0 && hits.every((value) => this.asksForAddress(value, depth));
    }
    if (call.callee.type !== 'MemberExpression') return false;
    return [call.callee.object, ...call.arguments].some((part) => this.matchesAddress(part));
  }

  // Whether the expression is a regular expression that only addresses match.
  matchesAddress(node) {
    const value = node.type === 'Identifier' ? this.tree.onlyValue(node) : node;
    return Boolean(value?.regex) && isAddressPattern(value.regex.pattern);
  }

  // The first call in `root` that looks up a name, directly or in a function of the script. If
  // `always` is true, code that runs only after a test does not count.
  firstIn(root, always) {
    const open = [root];
    while (open.length > 0) {
      const node = open.pop();
      if (!this.marked.has(node) || functionTypes.has(node.type)) continue;
      if (node.type === 'CallExpression' && this.looksUp(node)) return node;
      if (always && node !== root && /Statement$/.test(node.type) && node.type !== 'ExpressionStatement') continue;
      if (always && node.type === 'LogicalExpression') open.push(node.left);
      else if (always && node.type === 'ConditionalExpression') open.push(node.test);
      else pushAll(open, [...node[childrenKey]].reverse());
    }
    return null;
  }

  looksUp(call) {
    if (this.nameOf(call) !== null) return true;
    const called = this.tree.calledFunction(call);
    return called !== null && this.marked.has(called);
  }

  functionLooksUp(fn) {
    return this.marked.has(fn);
  }

  // Whether a test needs only the text of the host or the URL.
  isCheapTest(test) {
    if (this.firstIn(test, false) !== null) return false;
    if (hasNode(test, (node) => node.type === 'Identifier' && this.comesFromLookup(node))) return false;
    return hasNode(test, (node) => this.hosts.byNode.has(node) || this.tree.isHelper(node, 'isPlainHostName',
      'dnsDomainIs', 'shExpMatch', 'localHostOrDomainIs', 'dnsDomainLevels'));
  }

  comesFromLookup(id) {
    const name = this.tree.nameOf(id);
    return isVariable(name) &&
      name.writes.some((value) => value && this.firstIn(value, false) !== null);
  }
}

// --- The cost of the longest path ---

// The helper calls and the lookups on a path. Each number is an upper limit, except for recursive
// functions and for loops with an unknown number of rounds.
class Cost {
  constructor(calls = 0, names = new Set()) {
    this.calls = calls;
    this.names = names;
  }

  and(other) {
    if (other.calls === 0 && other.names.size === 0) return this;
    return new Cost(this.calls + other.calls,
      other.names.size === 0 ? this.names : new Set([...this.names, ...other.names]));
  }

  or(other) {
    return new Cost(Math.max(this.calls, other.calls),
      this.names.size >= other.names.size ? this.names : other.names);
  }

  times(count) {
    return new Cost(this.calls * count, this.names);
  }
}

class WorstCase {
  constructor(tree, lookups) {
    this.tree = tree;
    this.lookups = lookups;
    this.functions = new Map();
  }

  of(fn) {
    if (!this.functions.has(fn)) {
      this.functions.set(fn, new Cost()); // used if the function calls itself
      const body = fn.body.type === 'BlockStatement' ? this.ofList(fn.body.body) : this.ofNode(fn.body);
      this.functions.set(fn, body);
    }
    return this.functions.get(fn);
  }

  // The cost of the longest path through the list, or out of the list at one of its steps.
  ofList(list) {
    let through = new Cost();
    let longest = through;
    for (const { test, body } of stepsOf(list)) {
      if (test) through = through.and(this.ofNode(test));
      const inside = through.and(this.ofNode(body));
      longest = longest.or(inside);
      if (!test || canComplete(body)) through = through.or(inside);
    }
    return longest.or(through);
  }

  ofNode(root) {
    if (root.type === 'BlockStatement') return this.ofList(root.body);
    if (root.type === 'IfStatement') return this.ofList([root]);
    let cost = new Cost();
    const open = [root];
    while (open.length > 0) {
      const node = open.pop();
      if (functionTypes.has(node.type)) continue;
      if (node !== root && /^(Block|If)Statement$/.test(node.type)) cost = cost.and(this.ofNode(node));
      else if (/^(For|While|DoWhile)/.test(node.type)) cost = cost.and(this.ofLoop(node));
      else {
        if (node.type === 'CallExpression') cost = cost.and(this.ofCall(node));
        pushAll(open, node[childrenKey]);
      }
    }
    return cost;
  }

  ofCall(call) {
    const called = this.tree.calledFunction(call);
    if (called) return this.of(called);
    if (!this.tree.isHelper(call)) return new Cost();
    const names = this.lookups.nameOf(call) === null ? [] : this.namesOf(call);
    return new Cost(1, new Set(names));
  }

  // The names that the call may look up. If the argument is an element of a list, these are all
  // names of the list.
  namesOf(call) {
    const [given] = call.arguments;
    const isKnown = !this.tree.textsOf(given).some(({ text }) => text?.includes(unknownText));
    const names = isKnown ? this.lookups.knownNames(given) : [];
    return names.length > 0 ? names : [this.lookups.nameOf(call)];
  }

  ofLoop(loop) {
    const inside = loop[childrenKey].reduce((cost, child) => cost.and(this.ofNode(child)), new Cost());
    return inside.times(this.roundsOf(loop));
  }

  // The number of rounds of a loop, if it is visible in the script: for a literal array or a
  // constant bound. Else 1.
  roundsOf(loop) {
    const list = loop.right ?? (loop.test?.type === 'BinaryExpression' ? loop.test.right : null);
    if (!list) return 1;
    if (list.type === 'Literal' && typeof list.value === 'number') return Math.max(1, list.value);
    const isLength = list.type === 'MemberExpression' && list.property.name === 'length';
    const array = isLength ? list.object : list;
    const value = array.type === 'Identifier' ? this.tree.onlyValue(array) : array;
    return value?.type === 'ArrayExpression' ? Math.max(1, value.elements.length) : 1;
  }
}
