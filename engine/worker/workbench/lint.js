// The command "lint": finds what is probably wrong with a script, without running it.
//
// Argument: { only?: [name], ignore: [name], answers?: { host: answer } }. `answers` has the
// script's answers for local hosts. A comment `// pac-lint: ignore=NAME[,NAME]` after the code of a
// line turns these rules off for that line. A comment in a line of its own turns them off for the
// next line of code.
//
// Report: { rules: [[name, severity, summary, reason]],
//   findings: [[line, column, severity, name, message, reason, fix]] }, sorted by line. severity is
//   "error" (the script fails, or does not do what its text suggests), "warning" or "note" (a
//   matter of policy).
'use strict';

// name: [severity, summary, reason]
const lintRules = {
  'host-case': ['warning', 'The host is compared with upper case',
    'Programs ask with the host in lower case, so the test is never true.'],
  'isinnet-name': ['warning', 'isInNet is called with a name',
    'isInNet looks a name up, and each lookup delays the answer, up to 2 s.'],
  'dns-first': ['warning', 'A name is looked up before cheap tests',
    'A lookup takes milliseconds to seconds, a test of the text takes microseconds. Hosts that the later ' +
    'test decides wait for the lookup, too.'],
  'domain-dot': ['warning', 'A domain is compared without its dot',
    'The end of a text is compared, not whole labels.'],
  'shexp-regex': ['warning', 'A character of regular expressions in shExpMatch',
    'shExpMatch knows * and ?, and makes a regular expression of the rest without escaping it.'],
  'https-path': ['warning', 'The path of an https URL is tested',
    'A script sees no path of https and wss URLs, only https://host/.'],
  'unreachable': ['warning', 'A rule is never reached', 'Code that is never reached decides nothing.'],
  'no-var': ['warning', 'A variable is assigned without var',
    'A global keeps its value from one URL to the next, so an answer can depend on the URL before.'],
  'date-month-end': ['warning', 'A range of dates ends in the next month',
    'dateRange sets the month of 31 December; a month without that day becomes the next one.'],
  'entry-dropped': ['warning', 'The daemon drops an entry',
    'The daemon returns DIRECT, PROXY and SOCKS, in capitals, and drops all other entries.'],
  'entry-unknown': ['error', 'An entry that no browser knows', 'Programs skip it, or refuse the whole answer.'],
  'entry-port': ['warning', 'A proxy without a port', 'Programs use different default ports: 80, 1080 or none.'],
  'direct-missing': ['note', 'No DIRECT behind the proxies',
    'Programs cannot connect while the proxies do not answer.'],
  'direct-first': ['warning', 'DIRECT is not the last entry',
    'Entries are tried in order, and most programs never try an entry after DIRECT.'],
  'no-return': ['error', 'A path without an answer', 'Without a text there is no answer.'],
  'local-to-proxy': ['warning', 'Local hosts are sent to a proxy',
    'A proxy resolves a name without a dot in its own domain, or not at all.'],
  'too-many-names': ['warning', 'More names than one evaluation may look up',
    `An evaluation looks up ${mostLookups} names at most.`],
  'cost': ['warning', 'The worst case is expensive',
    `An evaluation ends after ${evaluationSeconds} s, and one lookup after ${lookupSeconds} s.`],
  'ignore-unknown': ['note', 'A comment ignores a rule that does not exist',
    'The comment has no effect; the name may be misspelt.'],
};

class Lint {
  constructor(script, options) {
    this.script = script;
    this.options = options;
    this.tree = new LintTree(script);
    this.hosts = new HostTests(this.tree);
    this.lookups = new Lookups(this.tree, this.hosts);
    this.findings = [];
    this.rule = '';
    this.memory = {};
  }

  report(node, message, fix, severity) {
    this.reportAt(node.start, message, fix, severity);
  }

  reportAt(offset, message, fix, severity) {
    const [usual, , reason] = lintRules[this.rule];
    this.findings.push([
      this.script.lineOf(offset), this.script.columnOf(offset), severity ?? usual, this.rule, message,
      reason, fix ?? null,
    ]);
  }

  lineOf(node) {
    return this.script.lineOf(node.start);
  }

  nameOf(fn) {
    return fn === this.tree.entry ? 'FindProxyForURL' : fn.id?.name ?? 'a function';
  }

  once(key, make) {
    if (!Object.hasOwn(this.memory, key)) this.memory[key] = make();
    return this.memory[key];
  }

  // The expressions that the entry point may return: [{ text, node }].
  returned() {
    return this.once('returned', () => {
      const functions = this.answering();
      const ends = functions.flatMap((fn) => this.tree.returnsOf(fn));
      const own = ends.filter(({ argument }) => !functions.includes(this.calledBy(argument)));
      return uniqueTexts(own.flatMap((end) => this.tree.textsOf(end.argument ?? end)), Infinity);
    });
  }

  // The returned texts, with their entries.
  answers() {
    return this.once('answers', () => this.returned().filter(({ text }) => text !== null)
      .map(({ node, text }) => ({ node, text, entries: piecesOf(text) })));
  }

  entries() {
    return this.once('entries', () => this.answers().flatMap(({ node, entries }) =>
      entries.map((entry) => ({ node, ...entry }))));
  }

  // The entry point, and the functions whose results it returns unchanged.
  answering() {
    return this.once('answering', () => {
      const found = new Set(this.tree.entry ? [this.tree.entry] : []);
      for (const fn of found) {
        for (const { argument } of this.tree.returnsOf(fn)) {
          const called = this.calledBy(argument);
          if (called && !called.generator && !called.async) found.add(called);
        }
      }
      return [...found];
    });
  }

  // The function of the script that the argument of a return calls, or null.
  calledBy(argument) {
    return argument?.type === 'CallExpression' ? this.tree.calledFunction(argument) : null;
  }

  worst() {
    if (!this.tree.entry) return null;
    return this.once('worst', () => new WorstCase(this.tree, this.lookups).of(this.tree.entry));
  }
}

// The rules that comments turn off: a map from lines to sets of rule names.
function ignoredLines(lint) {
  const { script } = lint;
  const ignored = new Map();
  script.comments.forEach((comment, index) => {
    const names = /^\s*pac-lint:\s*ignore=([\w-]+(?:\s*,\s*[\w-]+)*)/.exec(comment.value)?.[1].split(/[\s,]+/).filter(Boolean);
    if (!names) return;
    lint.rule = 'ignore-unknown';
    for (const name of names.filter((text) => !Object.hasOwn(lintRules, text))) {
      lint.report(comment, `there is no rule "${name}"`, `the rules are ${Object.keys(lintRules).join(', ')}`);
    }
    const line = script.lineOf(isAlone(script, comment) ? nextCode(script, index) : comment.start);
    if (!ignored.has(line)) ignored.set(line, new Set());
    for (const name of names) ignored.get(line).add(name);
  });
  return ignored;
}

function isAlone(script, comment) {
  const begin = script.text.lastIndexOf('\n', comment.start - 1) + 1;
  return comment.start - begin < 1000 && script.text.slice(begin, comment.start).trim() === '';
}

// The offset of the first code after a comment.
function nextCode(script, index) {
  let at = script.comments[index].end;
  for (let next = index + 1; ; next++) {
    while (at < script.text.length && /\s/.test(script.text[at])) at++;
    if (script.comments[next]?.start !== at) return at;
    at = script.comments[next].end;
  }
}

commands.lint = (script, options) => {
  const lint = new Lint(script, options);
  const ignored = ignoredLines(lint);
  const isOn = (name) => !(options.ignore ?? []).includes(name) &&
    (options.only === undefined || options.only.includes(name));
  for (const [name, check] of Object.entries({ ...hostRules, ...scriptRules, ...answerRules })) {
    lint.rule = name;
    if (isOn(name)) check(lint);
  }
  const findings = lint.findings
    .filter(([line, , , name]) => isOn(name) && !ignored.get(line)?.has(name))
    .sort((a, b) => a[0] - b[0] || a[1] - b[1] || (a[3] < b[3] ? -1 : a[3] > b[3] ? 1 : 0));
  const rules = Object.entries(lintRules).map(([name, [severity, summary, reason]]) =>
    [name, severity, summary, reason]);
  return { rules, findings };
};
