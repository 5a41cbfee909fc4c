// The command "instrument": adds calls of the hook (tracer.h) to the script, and describes its
// places.
//
// A place is a statement, or an expression whose value has an effect on the decision: a test, an
// operand of && || ??, the value of a return or a switch, a helper call. The source text of a place
// stays unchanged. No line end is added, so line numbers stay the same and comments may be
// anywhere. The calls of the hook are:
//   hook(N);          before a statement; a single statement without a block gets a block
//   hook(N,(value))   around an expression
//   hook(N),          before the test of an `else if`, which keeps a chain of them flat for the
//                     engine's own parser
//   hook(N,(value),1)  around the value of a return
//   hook(N,0,0,K);    at the start of a case; K is the place of its test, -1 for `default`
// The body of a `with` stays unchanged, because the hook's name could mean something else there.
//
// Report: { script, names, places, functions, notes, source? }. A place is the array
//   [kind, line, column, last line, source, function, owner, branch, callees?]
// kind: letters: s statement; t test of an if, ?: or loop; w value of a switch; k test of a case;
//   o operand; r return; h helper call; c entered case; d added to a letter: no URL can reach this
//   place
// owner: number of the place (t or c) that decides whether this place is reached; -1 if none does
//   branch: the result of the owner with which this place is reached
//   callees: of a return, the functions whose results it may pass on: "name", or ".name" of a method
// functions: [callee, first line, last line]; the script itself is number 0
'use strict';

const bodyKeys = {
  IfStatement: ['consequent', 'alternate'],
  ForStatement: ['body'],
  ForInStatement: ['body'],
  ForOfStatement: ['body'],
  WhileStatement: ['body'],
  DoWhileStatement: ['body'],
};

class Instrumenter {
  constructor(script) {
    this.script = script;
    this.places = [];
    this.insertions = []; // pairs of offset and text
    this.functions = [['', 1, script.lineOf(script.text.length)]];
    this.notes = [];
    this.name = this.freeName();
  }

  // A name for the hook. No text in the script contains this name. It is random, so that the script
  // cannot build the name from parts and write a false record.
  freeName() {
    for (;;) {
      const name = `$pm${String(Math.floor(Math.random() * 1e9)).padStart(9, '0')}`;
      if (!this.script.text.includes(name)) return name;
    }
  }

  insert(offset, text) {
    this.insertions.push([offset, text]);
  }

  // The start of a call of the hook. Without the blank, the name would become a part of a word
  // directly before it: `return"X"` and `case!a:` are correct without a blank.
  call(number) {
    return ` ${this.name}(${number}`;
  }

  note(node, text) {
    this.notes.push([this.script.lineOf(node.start), text]);
  }

  place(kind, node, context, withSource) {
    const { script } = this;
    const dead = context.dead ? 'd' : '';
    this.places.push([
      kind + dead, script.lineOf(node.start), script.columnOf(node.start), script.lineOf(node.end - 1),
      withSource ? script.sourceOf(node) : '', context.function, context.owner, context.branch,
    ]);
    return this.places.length - 1;
  }

  // Adds the hook around an expression, and continues inside. @return the place's number
  around(kind, node, context) {
    const isHelper = !context.inChain && isHelperCall(node);
    const number = this.place(isHelper ? kind + 'h' : kind, node, context, true);
    this.insert(node.start, `${this.call(number)},(`);
    this.inside(node, context);
    this.insert(node.end, kind[0] === 'r' ? '),1)' : '))');
    return number;
  }

  // Adds the hook around each operand of a test (&& || ?? !) and around the whole test. @return the
  // place's number
  test(kind, node, context) {
    if (!isLogical(node)) return this.around(kind, node, context);
    const number = this.place(kind, node, context, true);
    this.insert(node.start, `${this.call(number)},(`);
    this.operands(node, context);
    this.insert(node.end, kind[0] === 'r' ? '),1)' : '))');
    return number;
  }

  // Adds the hook around each operand of a logical expression. For a chain of a thousand operands,
  // this function calls itself a thousand levels deep.
  operands(node, context) {
    for (const side of [node.left, node.right]) {
      if (isLogical(side)) this.operands(side, context);
      else this.around('o', side, context);
    }
  }

  statements(list, context) {
    let dead = context.dead;
    let directives = true;
    for (const statement of list) {
      directives = directives && statement.directive !== undefined;
      // A function declaration has its effect even after a return.
      const isAlive = dead === context.dead || statement.type === 'FunctionDeclaration';
      this.statement(statement, isAlive ? context : { ...context, dead }, !directives);
      dead = dead || endsHere(statement);
    }
  }

  // A statement in a list. The call of the hook becomes a statement of its own before this
  // statement.
  statement(node, context, isCounted = true) {
    if (isCounted && isReached(node)) {
      this.insert(node.start, `${this.call(this.place('s', node, context, false))});`);
    }
    this.visit(node, context);
    // Without the ";", the engine would read "let", a line end and the hook as one declaration.
    if (node.expression?.name === 'let' && node.type === 'ExpressionStatement') this.insert(node.end, ';');
  }

  // A statement that is the body of an if or a loop.
  body(node, context) {
    if (node.type === 'BlockStatement' || !isReached(node)) return this.visit(node, context);
    this.insert(node.start, '{');
    this.statement(node, context);
    this.insert(node.end, '}');
  }

  // Handles the kinds of nodes that need calls of the hook. In other nodes, only the children are
  // visited.
  visit(node, context) {
    switch (node.type) {
      case 'Program':
      case 'BlockStatement':
      case 'StaticBlock':
        return this.statements(node.body, context);
      case 'FunctionDeclaration':
      case 'FunctionExpression':
      case 'ArrowFunctionExpression':
        return this.function(node, context);
      case 'IfStatement':
        return this.ifStatement(node, context);
      case 'ForStatement':
      case 'WhileStatement':
      case 'DoWhileStatement':
        return this.loop(node, context);
      case 'ForInStatement':
      case 'ForOfStatement':
        this.visit(node.left, context);
        this.visit(node.right, context);
        return this.body(node.body, context);
      case 'SwitchStatement':
        return this.switchStatement(node, context);
      case 'ReturnStatement':
        return this.returnStatement(node, context);
      case 'ConditionalExpression': {
        const owner = this.test('t', node.test, context);
        this.visit(node.consequent, { ...context, owner, branch: true });
        return this.visit(node.alternate, { ...context, owner, branch: false });
      }
      case 'LogicalExpression':
        return this.operands(node, context);
      case 'WithStatement':
        this.note(node, 'the body of a "with" is not instrumented');
        return this.visit(node.object, context);
      case 'ChainExpression':
        return this.visit(node.expression, { ...context, inChain: true });
      case 'VariableDeclarator':
        nameFunction(node.init, node.id);
        return this.inside(node, context);
      case 'AssignmentExpression':
        nameFunction(node.right, node.left);
        return this.inside(node, context);
      case 'Property':
      case 'MethodDefinition':
        if (!node.computed) nameFunction(node.value, node.key, true);
        if (node.computed) this.visit(node.key, context);
        return this.visit(node.value, context);
      case 'Identifier':
        if (node.name === 'eval' || node.name === 'Function') {
          this.note(node, `the code that "${node.name}" runs is not instrumented`);
        }
        return undefined;
      case 'CallExpression':
        if (!context.inChain && isHelperCall(node)) return void this.around('', node, context);
        return this.inside(node, context);
      default:
        return this.inside(node, context);
    }
  }

  // Visits the children of a node.
  inside(node, context) {
    if (node.type === 'CallExpression') {
      this.visit(node.callee, context);
      const given = context.inChain ? { ...context, inChain: false } : context;
      for (const argument of node.arguments) this.visit(argument, given);
    } else if (node.type === 'ConditionalExpression' || node.type === 'ChainExpression' ||
               /Function/.test(node.type)) {
      this.visit(node, context);
    } else if (node.type === 'MemberExpression') {
      this.visit(node.object, context);
      if (node.computed) this.visit(node.property, { ...context, inChain: false });
    } else {
      this.each(node, context);
    }
  }

  each(node, context) {
    const below = context.inChain ? { ...context, inChain: false } : context;
    for (const child of childrenOf(node)) this.visit(child, below);
  }

  function(node, outer) {
    const { script } = this;
    const name = node.callee ?? node.id?.name ?? '(anonymous)';
    this.functions.push([name, script.lineOf(node.start), script.lineOf(node.end - 1)]);
    const context = {
      function: this.functions.length - 1, owner: -1, branch: false, dead: outer.dead, inChain: false,
    };
    for (const parameter of node.params) this.visit(parameter, context);
    if (node.body.type === 'BlockStatement') this.statements(node.body.body, context);
    else this.returned(node.body, context);
  }

  ifStatement(node, context) {
    const always = constantOf(node.test);
    const owner = this.test('t', node.test, context);
    const dead = (branch) => context.dead || always === !branch;
    this.body(node.consequent, { ...context, owner, branch: true, dead: dead(true) });
    if (node.alternate === null) return;
    const other = { ...context, owner, branch: false, dead: dead(false) };
    if (node.alternate.type !== 'IfStatement') return this.body(node.alternate, other);
    const number = this.place('s', node.alternate, other, false);
    this.insert(node.alternate.test.start, `${this.call(number)}),`);
    this.ifStatement(node.alternate, other);
  }

  loop(node, context) {
    if (node.init) this.visit(node.init, context);
    const isLate = node.type === 'DoWhileStatement';
    if (isLate) this.body(node.body, context);
    const owner = node.test ? this.test('t', node.test, context) : context.owner;
    const dead = context.dead || (node.test && constantOf(node.test) === false);
    const inLoop = node.test ? { ...context, owner, branch: true, dead } : context;
    if (node.update) this.visit(node.update, inLoop);
    if (!isLate) this.body(node.body, inLoop);
  }

  switchStatement(node, context) {
    this.test('w', node.discriminant, context);
    for (const entry of node.cases) {
      const tested = entry.test ? this.test('k', entry.test, context) : -1;
      const owner = this.place('c', entry, context, false);
      const first = entry.consequent[0];
      this.insert(first ? first.start : entry.end, `${this.call(owner)},0,0,${tested});`);
      this.statements(entry.consequent, { ...context, owner, branch: true });
    }
  }

  returnStatement(node, context) {
    if (node.argument) {
      this.returned(node.argument, context);
    } else {
      const number = this.place('r', node, context, true);
      this.insert(node.start + 'return'.length, `${this.call(number)},(void 0),1)`);
    }
  }

  // Adds the hook around the value of a return.
  returned(node, context) {
    const callees = calleesOf(node);
    const number = this.test('r', node, context);
    if (callees.length > 0) this.places[number].push(callees);
  }

  // The script with all insertions. The insertions are already in order, except where the order of
  // the tree differs from the source.
  text() {
    const { insertions, script } = this;
    let sorted = true;
    for (let i = 1; i < insertions.length && sorted; i++) {
      sorted = insertions[i - 1][0] <= insertions[i][0];
    }
    if (!sorted) insertions.sort((a, b) => a[0] - b[0]);
    // A line "#!..." is valid only as the first line, so it becomes a "//" comment.
    const source = script.text.startsWith('#!') ? '//' + script.text.slice(2) : script.text;
    const parts = [`/*${this.name}*/`];
    let at = 0;
    for (const [offset, text] of insertions) {
      if (offset > at) parts.push(source.slice(at, offset));
      parts.push(text);
      at = offset;
    }
    parts.push(source.slice(at));
    return parts.join('');
  }
}

function isLogical(node) {
  return node.type === 'LogicalExpression';
}

function isHelperCall(node) {
  return node.type === 'CallExpression' && !node.optional && node.callee.type === 'Identifier' &&
      helperNames.has(node.callee.name);
}

// Notes the name of a function that is the value of a variable or a property.
function nameFunction(value, target, isMember = false) {
  if (!value || !/Function/.test(value.type)) return;
  const callee = isMember ? target.type === 'Identifier' && `.${target.name}` : calleeOf(target);
  if (callee) value.callee = callee;
}

// The name of a called expression: "name", or ".name" for a method. Null for other expressions.
// For `this.name`, the result is "name", because "this" may be the global object.
function calleeOf(node) {
  if (node.type === 'Identifier') return node.name;
  if (node.type !== 'MemberExpression' || node.computed || node.property.type !== 'Identifier') return null;
  return (node.object.type === 'ThisExpression' ? '' : '.') + node.property.name;
}

// The functions whose result the expression may be.
function calleesOf(node) {
  if (node.type === 'ConditionalExpression') return [...calleesOf(node.consequent), ...calleesOf(node.alternate)];
  const callee = node.type === 'CallExpression' ? calleeOf(node.callee) : null;
  return callee === null ? [] : [callee];
}

// Whether the statement has any effect when it is reached.
function isReached(node) {
  return node.type !== 'FunctionDeclaration' && node.type !== 'EmptyStatement';
}

// Whether the statements after this one in its list are never reached.
function endsHere(node) {
  switch (node.type) {
    case 'ReturnStatement':
    case 'ThrowStatement':
    case 'BreakStatement':
    case 'ContinueStatement':
      return true;
    case 'BlockStatement':
      return node.body.some(endsHere);
    case 'IfStatement':
      return node.alternate !== null && endsHere(node.consequent) && endsHere(node.alternate);
    default:
      return false;
  }
}

// The truth value of a constant test; undefined for other tests.
function constantOf(node) {
  if (node.type === 'Literal' && node.regex === undefined) return Boolean(node.value);
  if (node.type === 'UnaryExpression' && node.operator === '!') {
    const value = constantOf(node.argument);
    return value === undefined ? undefined : !value;
  }
  return undefined;
}

commands.instrument = (script, argument) => {
  const { tree } = script;
  const instrumenter = new Instrumenter(script);
  instrumenter.visit(tree, { function: 0, owner: -1, branch: false, dead: false, inChain: false });
  return {
    script: instrumenter.text(),
    places: instrumenter.places,
    functions: instrumenter.functions,
    notes: instrumenter.notes,
    source: argument.source ? script.text : undefined,
  };
};
