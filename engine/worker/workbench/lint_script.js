// The rules about the script as a program: unreachable code, the meaning of names, cost.
'use strict';

// The daemon's limits for one evaluation (docs/limits.md).
const mostLookups = 20;
const lookupSeconds = 2;
const evaluationSeconds = 5;
// This many helper calls take about ten milliseconds on a small device.
const mostCalls = 5000;

const scriptRules = {
  'unreachable'(lint) {
    for (const list of statementLists(lint.tree)) {
      const at = list.findIndex((statement) => !canComplete(statement)) + 1;
      const next = at === 0 ? null : list.slice(at).find(isDoing);
      if (next) {
        lint.report(next, 'this is never reached', `remove it, or the statement of line ` +
          `${lint.lineOf(list[at - 1])} that ends the path before it`);
      }
      findShadowed(lint, list);
    }
    for (const node of lint.tree.of('IfStatement', 'ConditionalExpression')) {
      if (node.test.type === 'Literal') {
        lint.report(node.test, `this test is always ${Boolean(node.test.value)}`, 'remove what is never reached');
      }
    }
    for (const node of lint.tree.of('SwitchStatement')) findRepeatedCases(lint, node);
  },

  'no-var'(lint) {
    const seen = new Set(['FindProxyForURL', 'undefined', ...helperNames, 'wdays', 'months']);
    const ids = lint.tree.assignments().map(([id]) => id)
      .filter((id) => lint.tree.nameOf(id).kind === 'implicit').sort((a, b) => a.start - b.start);
    // An assignment in strict mode throws if no assignment outside strict mode has created the
    // global.
    const sloppy = ids.filter((id) => !isStrict(id));
    for (const [isError, list] of [[false, sloppy], [true, ids]]) {
      for (const id of list) {
        if (seen.has(id.name)) continue;
        seen.add(id.name);
        const effect = isError ? ', which throws in strict mode' : ', so it is a global';
        const fix = isReadElsewhere(lint.tree, id)
          ? `write var ${id.name}; at the top of the script, because another function reads it`
          : `write var ${id.name}`;
        lint.report(id, `${id.name} is assigned without var${effect}`, fix, isError ? 'error' : undefined);
      }
    }
  },

  'too-many-names'(lint) {
    const cost = lint.worst();
    if (!cost || cost.names.size <= mostLookups) return;
    lint.report(lint.tree.entry, `one evaluation may look up ${cost.names.size} names; those behind the ` +
      `first ${mostLookups} do not resolve`, 'test the text of the host instead of its address');
  },

  'cost'(lint) {
    for (const node of lint.tree.of('Literal')) {
      if (node.regex && mayRunWithoutEnd(node.regex)) {
        lint.report(node, `/${node.regex.pattern}/ can match a text in many ways, and may run without end`,
          'begin or end each round of the repetition with a character that stands nowhere else in it, such as ' +
          'the dot, or use shExpMatch');
      }
    }
    const cost = lint.worst();
    if (!cost) return;
    const seconds = cost.names.size * lookupSeconds;
    if (seconds > evaluationSeconds && cost.names.size <= mostLookups) {
      lint.report(lint.tree.entry, `one evaluation may look up ${cost.names.size} names (` +
        `${[...cost.names].slice(0, 4).join(', ')}${cost.names.size > 4 ? ', ...' : ''}), which takes ` +
        `${seconds} s if no name server answers`, 'look up fewer names, or test the text of the host');
    }
    if (cost.calls > mostCalls) {
      lint.report(lint.tree.entry, `one evaluation may call helpers ${cost.calls} times`,
        'keep hosts and domains in an object and look the host up in it');
    }
  },
};

// Whether code outside the function of the assignment may read the value of the global.
function isReadElsewhere(tree, assigned) {
  const name = tree.nameOf(assigned);
  return assigned[functionOf].type !== 'Program' && tree.identifiersOf(assigned.name)
    .some((id) => !isInside(id, assigned[functionOf]) && tree.nameOf(id) === name && !isKey(id) &&
      !isAssigned(id) && !isWrittenBefore(name, id, tree.budget));
}

function isInside(node, fn) {
  let owner = node[functionOf];
  while (owner !== fn && owner.type !== 'Program') owner = owner[functionOf];
  return owner === fn;
}

// Whether the identifier is the name of a member or of a label.
function isKey(id) {
  const { type, computed, property, key, shorthand } = id[parentOf];
  return (!computed && !shorthand && (property === id || key === id)) || /^(Labeled|Break|Continue)/.test(type);
}

// Whether the identifier gets a new value in its place, and its old value is not read.
function isAssigned(id) {
  const { left, operator } = id[parentOf];
  return left === id && (operator === '=' || isLoop(id[parentOf]));
}

// Whether a node runs in strict mode.
function isStrict(node) {
  for (let at = node; at; at = at[parentOf]) {
    if (at.type === 'ClassBody') return true;
    const list = at.type === 'Program' ? at.body : functionTypes.has(at.type) ? at.body.body : null;
    if (!Array.isArray(list)) continue;
    for (const { directive } of list) {
      if (directive === undefined) break;
      if (directive === 'use strict') return true;
    }
  }
  return false;
}

// Statements that have an effect when they are reached. A function declaration has its effect
// earlier.
function isDoing(statement) {
  if (statement.type === 'FunctionDeclaration' || statement.type === 'EmptyStatement') return false;
  return statement.type !== 'VariableDeclaration' || statement.declarations.some(({ init }) => init !== null);
}

function findRepeatedCases(lint, node) {
  const seen = new Map();
  for (const one of node.cases) {
    if (!one.test || (one.test.type !== 'Literal' && !isSteady(lint, one.test))) continue;
    const key = one.test.type === 'Literal' ? `${typeof one.test.value} ${one.test.value}`
      : `source ${lint.script.text.slice(one.test.start, one.test.end)}`;
    if (seen.has(key)) {
      lint.report(one, `line ${lint.lineOf(seen.get(key))} has the same case`, 'remove one of the two');
    } else {
      seen.set(key, one);
    }
  }
}

// Tests that can never be true, because an earlier test has already ended the function.
function findShadowed(lint, list) {
  const patterns = { host: new MetPatterns(), url: new MetPatterns() };
  const sources = new Map();
  for (const { test, body, isSure } of stepsOf(list)) {
    if (!test) continue;
    for (const operand of operandsOf(test, '||')) {
      for (const atom of operandsOf(operand, '&&')) {
        const earlier = coveringTest(lint, atom, patterns, sources);
        if (!earlier || earlier === atom) continue;
        lint.report(atom, `this is never true: the test of line ${lint.lineOf(earlier)} has already decided ` +
          'about all that it matches', 'remove it, or move it before that one');
        break;
      }
      if (isSure && endsFunction(body)) meet(lint, operand, patterns, sources);
    }
  }
}

function coveringTest(lint, atom, patterns, sources) {
  const test = patternTest(lint, atom);
  if (test) return patterns[test.subject].covering(test.pattern);
  if (sources.size === 0 || !isSteady(lint, atom)) return null;
  return sources.get(lint.script.text.slice(atom.start, atom.end)) ?? null;
}

function meet(lint, operand, patterns, sources) {
  const test = patternTest(lint, operand);
  if (test) {
    patterns[test.subject].add(test.pattern, operand);
  } else if (isSteady(lint, operand)) {
    const source = lint.script.text.slice(operand.start, operand.end);
    if (!sources.has(source)) sources.set(source, operand);
  }
}

// The test of the host or the URL against one pattern, or null if the node is no such test.
function patternTest(lint, node) {
  const tests = lint.hosts.byNode.get(node);
  return tests?.length === 1 && tests[0].pattern !== null ? tests[0] : null;
}

// Whether equal source texts always have equal results: the node is a helper call or a comparison
// that uses only the host, the URL and literals.
function isSteady(lint, node) {
  if (node.end - node.start > 2000) return false;
  return !hasNode(node, (inner) => {
    switch (inner.type) {
      case 'CallExpression':
        return !lint.tree.isHelper(inner) && !(inner.callee.type === 'MemberExpression' &&
          lint.tree.subjectOf(inner.callee.object) !== null);
      case 'Identifier':
        return !helperNames.has(inner.name) && lint.tree.subjectOf(inner) === null &&
          inner[parentOf].property !== inner;
      case 'Literal':
      case 'MemberExpression':
      case 'BinaryExpression':
      case 'UnaryExpression':
      case 'LogicalExpression':
        return false;
      default:
        return true;
    }
  });
}
