// The facts about a script that the lint rules use: parents, functions, names, and the texts that
// an expression may have. A name belongs to the whole function, as with `var`. A `let` with the
// same name in a block counts as the same name.
'use strict';

const parentOf = Symbol('parent');
const functionOf = Symbol('function');
const loopOf = Symbol('loop'); // the innermost loop of the same function around the node, or null
const childrenKey = Symbol('children');

// The placeholder for a part of a text that is known only when the script runs.
const unknownText = '\ufffc';
// Limit of the texts that are computed for one expression. A script could build many more texts.
const mostTexts = 256;

const functionTypes = new Set([
  'FunctionDeclaration', 'FunctionExpression', 'ArrowFunctionExpression',
]);

class LintTree {
  constructor(script) {
    this.script = script;
    this.nodes = new Map(); // type -> nodes, in source order
    this.scopes = new Map(); // function or program -> Map of names
    this.texts = new Map(); // cache of textsOf()
    this.budget = { left: mostWrites };
    this.addAll(script.tree);
    this.bindAll();
    this.entry = this.functionNamed('FindProxyForURL');
  }

  of(...types) {
    if (types.length === 1) return this.nodes.get(types[0]) ?? [];
    return types.flatMap((type) => this.nodes.get(type) ?? []);
  }

  addAll(program) {
    const open = [[program, null, program, null]];
    while (open.length > 0) {
      const [node, parent, owner, loop] = open.pop();
      node[parentOf] = parent;
      node[functionOf] = owner;
      node[loopOf] = loop;
      if (!this.nodes.has(node.type)) this.nodes.set(node.type, []);
      this.nodes.get(node.type).push(node);
      const isFunction = functionTypes.has(node.type);
      const inner = isFunction ? node : owner;
      const innerLoop = isFunction ? null : isLoop(node) ? node : loop;
      const children = childrenOf(node);
      node[childrenKey] = children;
      for (let i = children.length - 1; i >= 0; i--) open.push([children[i], node, inner, innerLoop]);
    }
  }

  // --- Names ---

  bindAll() {
    const program = this.script.tree;
    this.scopes.set(program, new Map());
    for (const node of this.of(...functionTypes)) {
      this.scopes.set(node, new Map());
      if (node.type === 'FunctionExpression' && node.id) this.bind(node, node.id.name, 'function', node);
    }
    for (const node of this.of(...functionTypes)) {
      if (node.type === 'FunctionDeclaration' && node.id) {
        this.bind(node[functionOf], node.id.name, 'function', node);
      }
      node.params.forEach((param, index) => {
        for (const id of namesOf(param)) this.bind(node, id.name, 'parameter', null).index = index;
      });
    }
    for (const node of this.of('ClassDeclaration')) this.bind(node[functionOf], node.id.name, 'class', null);
    for (const node of this.of('CatchClause')) {
      if (node.param) for (const id of namesOf(node.param)) this.bind(node[functionOf], id.name, 'other', null);
    }
    for (const node of this.of('VariableDeclarator')) {
      const isSimple = node.id.type === 'Identifier';
      for (const id of namesOf(node.id)) {
        const name = this.bind(node[functionOf], id.name, 'variable', null);
        if (node[parentOf].kind !== 'var') name.blocks.add(blockOf(node[parentOf]));
        if (isLoopTarget(node)) addWrite(name, id, null, node[parentOf][parentOf]);
        else if (node.init || !isSimple) addWrite(name, id, isSimple ? node.init : null, node);
      }
    }
    for (const [id, value, by] of this.assignments()) {
      addWrite(this.nameOf(id) ?? this.bind(program, id.name, 'implicit', null), id, value, by);
    }
  }

  bind(scope, text, kind, definition) {
    const names = this.scopes.get(scope);
    if (!names.has(text)) {
      // writes: the new values. places: the same writes as { id, by }; `by` is the node that writes.
      // blocks: the blocks that declare the name with let or const.
      names.set(text, { text, kind, scope, definition, writes: [], places: [], blocks: new Set(), index: -1 });
    }
    const name = names.get(text);
    if (definition) name.definition = definition;
    return name;
  }

  // Lists of an assigned identifier, its new value, and the node that assigns. The value is null if
  // the new value is not one expression.
  assignments() {
    const pairs = [];
    for (const node of this.of('AssignmentExpression')) {
      const isPlain = node.left.type === 'Identifier' && node.operator === '=';
      for (const id of namesOf(node.left)) pairs.push([id, isPlain ? node.right : null, node]);
    }
    for (const node of this.of('UpdateExpression')) {
      if (node.argument.type === 'Identifier') pairs.push([node.argument, null, node]);
    }
    for (const node of this.of('ForInStatement', 'ForOfStatement')) {
      if (node.left.type !== 'VariableDeclaration') {
        for (const id of namesOf(node.left)) pairs.push([id, null, node]);
      }
    }
    return pairs;
  }

  // The meaning of an identifier; null for a name that the script neither declares nor assigns.
  nameOf(id) {
    for (let scope = id[functionOf]; ; scope = scope[functionOf]) {
      const name = this.scopes.get(scope).get(id.name);
      if (name) return name;
      if (scope.type === 'Program') return null;
    }
  }

  // The function that a global name means. The function may be defined in any form.
  functionNamed(text) {
    const name = this.scopes.get(this.script.tree).get(text);
    if (name?.definition) return name.definition;
    const values = [...(name?.writes ?? [])];
    for (const node of this.of('AssignmentExpression')) {
      const { left } = node;
      const isGlobal = left.type === 'Identifier' ? left.name === text
        : left.type === 'MemberExpression' && text === (left.computed ? left.property.value : left.property.name);
      if (isGlobal) values.push(node.right);
    }
    return values.find((value) => value && functionTypes.has(value.type)) ?? null;
  }

  // The function of the script that a call runs; null if it runs something else.
  calledFunction(call) {
    if (call.callee.type !== 'Identifier') return null;
    const name = this.nameOf(call.callee);
    if (!name) return null;
    if (name.definition) return name.definition;
    const [value] = name.writes;
    return name.writes.length === 1 && value && functionTypes.has(value.type) ? value : null;
  }

  // Whether a call calls a helper that the script has not replaced.
  isHelper(call, ...names) {
    return call.type === 'CallExpression' && call.callee.type === 'Identifier' &&
      helperNames.has(call.callee.name) && (names.length === 0 || names.includes(call.callee.name)) &&
      this.nameOf(call.callee) === null;
  }

  // The value that a variable keeps from its only assignment; null if there is none.
  onlyValue(id) {
    const name = this.nameOf(id);
    return isVariable(name) && name.writes.length === 1 ? name.writes[0] : null;
  }

  // --- Host and URL ---

  // 'host' or 'url' if the expression is this argument of the entry point, or this argument in
  // lower case. Else null. In other functions, a parameter counts if it has a usual name, such as
  // "host" or "url".
  subjectOf(node, depth = 0) {
    if (depth > 8) return null;
    if (node.type === 'Identifier') return this.subjectOfName(this.nameOf(node), depth);
    if (node.type === 'AssignmentExpression' && node.operator === '=') {
      return this.subjectOf(node.right, depth + 1);
    }
    if (node.type !== 'CallExpression' || node.callee.type !== 'MemberExpression') return null;
    const { object, property, computed } = node.callee;
    const isKept = !computed && ['toLowerCase', 'toString', 'trim'].includes(property.name);
    return isKept ? this.subjectOf(object, depth + 1) : null;
  }

  subjectOfName(name, depth) {
    if (!name) return null;
    // After `host = host.toLowerCase()`, the variable still contains the host.
    const values = name.writes.map((value) => value && this.selfOrSubject(value, name, depth + 1));
    if (isVariable(name)) {
      return values.length === 1 && values[0] !== name ? values[0] : null;
    }
    if (name.kind !== 'parameter' || values.some((value) => value !== name)) return null;
    if (name.scope === this.entry) return ['url', 'host'][name.index] ?? null;
    if (/^host(name)?$/i.test(name.text)) return 'host';
    return /^ur[li]$/i.test(name.text) ? 'url' : null;
  }

  selfOrSubject(value, name, depth) {
    let node = value;
    while (node.type === 'CallExpression' && node.callee.type === 'MemberExpression' &&
           ['toLowerCase', 'toString', 'trim'].includes(node.callee.property.name)) {
      node = node.callee.object;
    }
    if (node.type === 'Identifier' && this.nameOf(node) === name) return name;
    return this.subjectOf(value, depth);
  }

  // --- Texts ---

  // The texts that an expression may have: [{ text, node }]. text is null for a value that is not a
  // text.
  textsOf(node, depth = 0) {
    if (this.texts.has(node)) return this.texts.get(node);
    if (depth > 24) return [{ text: unknownText, node }];
    this.texts.set(node, [{ text: unknownText, node }]); // an expression may use itself
    const texts = uniqueTexts(this.findTexts(node, depth + 1));
    this.texts.set(node, texts);
    return texts;
  }

  findTexts(node, depth) {
    const unknown = [{ text: unknownText, node }];
    const all = (nodes) => nodes.flatMap((part) => (part ? this.textsOf(part, depth) : unknown));
    switch (node.type) {
      case 'Literal':
        return [{ text: typeof node.value === 'string' ? node.value : null, node }];
      case 'TemplateLiteral':
        return this.joined(node, depth);
      case 'BinaryExpression':
        return node.operator === '+' ? this.joined(node, depth) : [{ text: null, node }];
      case 'ConditionalExpression':
        return all([node.consequent, node.alternate]);
      case 'LogicalExpression':
        return [...all([node.left]).filter(({ text }) => text),
          ...all([node.right]).filter(({ text }) => text !== null)];
      case 'AssignmentExpression':
        if (node.operator === '+=' && node.left.type === 'Identifier') return this.joined(node, depth);
        return node.operator === '=' ? all([node.right]) : unknown;
      case 'SequenceExpression':
        return all([node.expressions.at(-1)]);
      case 'Identifier':
        return this.textsOfName(node, all, unknown);
      case 'MemberExpression':
        return this.textsOfElement(node, all, unknown);
      case 'CallExpression': {
        const called = this.calledFunction(node);
        return called ? all(this.returnsOf(called).map((end) => end.argument ?? end)) : unknown;
      }
      case 'ReturnStatement': // has no value
        return [{ text: null, node }];
      default:
        return unknown;
    }
  }

  textsOfName(node, all, unknown) {
    if (node.name === 'undefined') return [{ text: null, node }];
    const name = this.nameOf(node);
    if (!isVariable(name) || name.places.length === 0) return unknown;
    const first = name.places[0];
    const seen = name.places.length === 1 ? name.places : writesSeenBy(name, node, this.budget);
    // After `text = text + more`, the texts depend on the path to this write.
    if (!seen?.length || (seen.length > 1 && seen.some((place) => this.readsItself(place, name)))) return unknown;
    // An initial null, undefined, false or "" is left out, because a script usually tests for it
    // before it returns the variable.
    return seen.flatMap((place) => {
      const texts = all(this.valuesOf(place));
      const isLeftOut = this.isTested(name) || (place === first && seen.length > 1);
      return isLeftOut ? texts.filter(({ text }) => text) : texts;
    });
  }

  // The expressions whose values a write may give to the variable. A null stands for an unknown
  // value.
  valuesOf({ id, by }) {
    if (by.type === 'VariableDeclarator') return [by.id === id ? by.init : null];
    if (by.type === 'AssignmentExpression' && by.left === id) return [by.operator === '=' ? by.right : by];
    const target = by.left?.declarations?.[0].id ?? by.left;
    return by.type === 'ForOfStatement' && target === id ? this.itemsOf(by.right) ?? [null] : [null];
  }

  // Whether the new value depends on the old one.
  readsItself(place, name) {
    const { id, by } = place;
    if (by.type === 'UpdateExpression') return true;
    if (by.type === 'AssignmentExpression' && by.operator !== '=') return true;
    place.readsItself ??= hasNode(by.right ?? by.init, (node) =>
      node.type === 'Identifier' && node.name === id.name && this.nameOf(node) === name);
    return place.readsItself;
  }

  // The identifiers with this text.
  identifiersOf(text) {
    if (!this.identifiers) {
      this.identifiers = new Map();
      for (const id of this.of('Identifier')) {
        if (!this.identifiers.has(id.name)) this.identifiers.set(id.name, []);
        this.identifiers.get(id.name).push(id);
      }
    }
    return this.identifiers.get(text) ?? [];
  }

  // Whether the script tests the variable. If so, the script usually returns the variable only if
  // it has a text.
  isTested(name) {
    if (!this.tested) {
      this.tested = new Set();
      const note = (node) => {
        if (node.type === 'Identifier') this.tested.add(this.nameOf(node));
        return false;
      };
      for (const { test } of this.of('IfStatement', 'ConditionalExpression')) hasNode(test, note);
      for (const { left } of this.of('LogicalExpression')) note(left);
    }
    return this.tested.has(name);
  }

  // An element of an array literal, or a member of an object literal.
  textsOfElement(node, all, unknown) {
    const items = node.computed ? this.itemsOf(node.object) : null;
    if (items) return all(items);
    const isKept = node.object.type === 'Identifier' && !this.isChanged(node.object);
    const value = isKept ? this.onlyValue(node.object) : null;
    if (value?.type !== 'ObjectExpression') return unknown;
    const values = value.properties.filter((property) => property.type === 'Property')
      .filter(({ key }) => node.computed || (key.name ?? key.value) === node.property.name);
    return values.length > 0 ? all(values.map((property) => property.value)) : unknown;
  }

  // The elements of an array literal, or of a variable with an array literal; else null.
  itemsOf(node) {
    const isName = node.type === 'Identifier';
    const value = isName ? this.onlyValue(node) : node;
    return value?.type === 'ArrayExpression' && !(isName && this.isChanged(node)) ? value.elements : null;
  }

  // Whether the script assigns an element or a member of the variable.
  isChanged(id) {
    if (!this.changed) {
      const targets = [...this.of('AssignmentExpression').map(({ left }) => left),
        ...this.of('UpdateExpression').map(({ argument }) => argument)];
      const objects = targets.map(({ object }) => object).filter((object) => object?.type === 'Identifier');
      this.changed = new Set(objects.map((object) => this.nameOf(object)));
    }
    return this.changed.has(this.nameOf(id));
  }

  // A text that is built from pieces: all combinations, up to the limit.
  joined(node, depth) {
    let texts = [''];
    for (const part of partsOf(node)) {
      const pieces = typeof part === 'string' ? [part]
        : this.textsOf(part, depth).map(({ text }) => text ?? unknownText);
      if (pieces.length === 0) pieces.push(unknownText);
      if (texts.length * pieces.length > mostTexts) return [{ text: unknownText, node }];
      texts = texts.flatMap((text) => pieces.map((piece) => text + piece));
    }
    return texts.map((text) => ({ text, node }));
  }

  // The return statements of a function, without those of inner functions.
  returnsOf(fn) {
    if (fn.type === 'ArrowFunctionExpression' && fn.expression) return [{ argument: fn.body }];
    if (!this.returns) {
      this.returns = new Map();
      for (const node of this.of('ReturnStatement')) {
        const of = node[functionOf];
        if (!this.returns.has(of)) this.returns.set(of, []);
        this.returns.get(of).push(node);
      }
    }
    return this.returns.get(fn) ?? [];
  }
}

// A declared variable, or a global that an assignment without a declaration creates.
function isVariable(name) {
  return name?.kind === 'variable' || name?.kind === 'implicit';
}

function uniqueTexts(texts, most = mostTexts) {
  const seen = new Map();
  for (const found of texts) {
    const key = `${found.node.start} ${found.text}`;
    if (!seen.has(key) && seen.size < most) seen.set(key, found);
  }
  return [...seen.values()];
}

function isLoopTarget(declarator) {
  const loop = declarator[parentOf][parentOf];
  return /^For(In|Of)Statement$/.test(loop?.type) && loop.left === declarator[parentOf];
}

function addWrite(name, id, value, by) {
  name.writes.push(value);
  name.places.push({ id, by });
}

// The block in which a declaration with let or const is valid.
function blockOf(declaration) {
  const parent = declaration[parentOf];
  return parent.type === 'SwitchCase' ? parent[parentOf] : parent;
}

// The texts and expressions that a template, a sum or `+=` joins.
function partsOf(node) {
  if (node.type === 'AssignmentExpression') return [node.left, node.right];
  if (node.type !== 'TemplateLiteral') return sumOf(node);
  return node.quasis.flatMap((quasi, i) => [quasi.value.cooked, node.expressions[i]].filter(Boolean));
}

// The operands of a sum. There may be thousands.
function sumOf(node) {
  const parts = [];
  let left = node;
  while (left.type === 'BinaryExpression' && left.operator === '+') {
    parts.push(left.right);
    left = left.left;
  }
  parts.push(left);
  return parts.reverse();
}

// The operands of a chain of one logical operator.
function operandsOf(node, operator = node.operator) {
  const operands = [];
  const open = [node];
  while (open.length > 0) {
    const next = open.pop();
    if (next.type === 'LogicalExpression' && next.operator === operator) open.push(next.right, next.left);
    else operands.push(next);
  }
  return operands;
}

// The identifiers that a pattern of parameters or assignments sets.
function namesOf(pattern) {
  switch (pattern?.type) {
    case 'Identifier':
      return [pattern];
    case 'ArrayPattern':
      return pattern.elements.flatMap(namesOf);
    case 'ObjectPattern':
      return pattern.properties.flatMap((property) => namesOf(property.value ?? property.argument));
    case 'AssignmentPattern':
      return namesOf(pattern.left);
    case 'RestElement':
      return namesOf(pattern.argument);
    default:
      return [];
  }
}

// Uses a loop, because one call cannot take thousands of spread arguments.
function pushAll(list, items) {
  for (const item of items) list.push(item);
}

// Whether `root` or a node below it passes `test`. It skips inner functions.
function hasNode(root, test) {
  const open = [root];
  while (open.length > 0) {
    const node = open.pop();
    if (test(node)) return true;
    if (node === root || !functionTypes.has(node.type)) pushAll(open, node[childrenKey]);
  }
  return false;
}
