// Finds the tests that compare the host or the URL with a constant text. The texts that such a test
// matches are written as a shell expression: dnsDomainIs(host, ".example.com") becomes
// "*.example.com".
'use strict';

const shellSpecials = /[+[\](){}\\^$|]/;

class HostTests {
  constructor(tree) {
    this.tree = tree;
    this.all = [
      ...tree.of('CallExpression').flatMap((node) => this.ofCall(node)),
      ...tree.of('BinaryExpression').flatMap((node) => this.ofComparison(node)),
      ...tree.of('SwitchCase').flatMap((node) => this.ofCase(node)),
    ];
    this.byNode = new Map();
    for (const test of this.all) {
      if (!this.byNode.has(test.node)) this.byNode.set(test.node, []);
      this.byNode.get(test.node).push(test);
    }
  }

  // One test for each text that the argument may have: { node, subject, text, pattern, how }.
  // pattern is null if no shell expression matches the same texts as the test.
  made(node, subject, argument, how, patternOf) {
    if (!subject || !argument) return [];
    return this.tree.textsOf(argument).filter(({ text }) => text !== null && !text.includes(unknownText))
      .map(({ text }) => ({ node, subject, text, how, pattern: patternOf(text), argument }));
  }

  ofCall(node) {
    const { tree } = this;
    const [first, second] = node.arguments;
    const plain = (before, after) => (text) => (/[*?]/.test(text) ? null : before + text + after);
    if (tree.isHelper(node, 'dnsDomainIs', 'localHostOrDomainIs', 'shExpMatch') && second) {
      const how = node.callee.name;
      const patterns = {
        dnsDomainIs: plain('*', ''),
        localHostOrDomainIs: () => null,
        shExpMatch: (text) => (shellSpecials.test(text) ? null : text),
      };
      return this.made(node, tree.subjectOf(first), second, how, patterns[how]);
    }
    if (node.callee.type !== 'MemberExpression' || node.callee.computed || node.arguments.length !== 1) {
      return [];
    }
    const how = node.callee.property.name;
    const patterns = {
      endsWith: plain('*', ''), startsWith: plain('', '*'), includes: plain('*', '*'), indexOf: () => null,
    };
    if (!Object.hasOwn(patterns, how)) return [];
    return this.made(node, tree.subjectOf(node.callee.object), first, how, patterns[how]);
  }

  ofComparison(node) {
    if (!/^[=!]==?$/.test(node.operator)) return [];
    const isEqual = node.operator[0] === '=';
    for (const [one, other] of [[node.left, node.right], [node.right, node.left]]) {
      const subject = this.tree.subjectOf(one);
      const exact = (text) => (!isEqual || /[*?]/.test(text) ? null : text);
      if (subject) return this.made(node, subject, other, '==', exact);
      const begin = this.beginningOf(one);
      if (begin) return this.made(node, begin, other, 'beginning', () => null);
    }
    return [];
  }

  // The subject of `url.substring(0, 5)` and similar calls.
  beginningOf(node) {
    if (node.type !== 'CallExpression' || node.callee.type !== 'MemberExpression') return null;
    const isCut = ['substring', 'substr', 'slice'].includes(node.callee.property.name);
    return isCut ? this.tree.subjectOf(node.callee.object) : null;
  }

  ofCase(node) {
    const subject = node.test && this.tree.subjectOf(node[parentOf].discriminant);
    return this.made(node, subject, node.test, '==', (text) => (/[*?]/.test(text) ? null : text));
  }
}

// Whether the shell expression `wide` matches every text that `narrow` matches. The result can be
// wrong in one way only: false for a pair for which the right result is true.
function coversPattern(wide, narrow) {
  let at = 0;
  let from = 0;
  let star = -1;
  let taken = 0;
  while (from < narrow.length || at < wide.length) {
    if (wide[at] === '*') {
      star = ++at;
      taken = from;
    } else if (from < narrow.length && at < wide.length &&
               (wide[at] === narrow[from] || (wide[at] === '?' && narrow[from] !== '*'))) {
      at++;
      from++;
    } else if (star >= 0 && taken < narrow.length) {
      from = ++taken;
      at = star;
    } else {
      return false;
    }
  }
  return true;
}

// The patterns that were found. The class finds out which pattern covers another one. Most patterns
// of a large script are "*.domain" or a host; the class looks these up by their text.
class MetPatterns {
  constructor() {
    this.texts = new Map();
    this.suffixes = new Map();
    this.suffixLengths = new Set();
    this.others = new Map(); // text before the first wildcard -> [[pattern, its longest text, node]]
    this.otherLengths = new Set();
  }

  add(pattern, node) {
    if (!/[*?]/.test(pattern)) {
      if (!this.texts.has(pattern)) this.texts.set(pattern, node);
    } else if (pattern[0] === '*' && !/[*?]/.test(pattern.slice(1))) {
      if (!this.suffixes.has(pattern.slice(1))) this.suffixes.set(pattern.slice(1), node);
      this.suffixLengths.add(pattern.length - 1);
    } else {
      const head = /^[^*?]*/.exec(pattern)[0];
      if (!this.others.has(head)) this.others.set(head, []);
      const longest = pattern.split(/[*?]+/).reduce((one, other) => (other.length > one.length ? other : one));
      if (this.others.get(head).length < 100) this.others.get(head).push([pattern, longest, node]);
      this.otherLengths.add(head.length);
    }
  }

  // The node of a pattern that covers `pattern`, or null.
  covering(pattern) {
    if (this.texts.has(pattern)) return this.texts.get(pattern);
    const tail = /[^*?]*$/.exec(pattern.slice(-300))[0];
    for (const length of this.suffixLengths) {
      const suffix = length <= tail.length ? tail.slice(tail.length - length) : null;
      if (suffix !== null && this.suffixes.has(suffix)) return this.suffixes.get(suffix);
    }
    const head = /^[^*?]*/.exec(pattern.slice(0, 300))[0];
    for (const length of this.otherLengths) {
      const beginning = length <= head.length ? head.slice(0, length) : null;
      for (const [wide, longest, node] of (beginning !== null && this.others.get(beginning)) || []) {
        // The first test is much faster, and enough for most pairs.
        if (pattern.includes(longest) && coversPattern(wide, pattern)) return node;
      }
    }
    return null;
  }
}
