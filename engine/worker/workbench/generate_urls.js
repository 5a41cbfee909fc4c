// The command "urls": makes URLs for which the tests of a script are true, and URLs for which they
// are false. The URLs are made from the hosts, networks and patterns in the script.
//
// Report: { urls: [[url, [[line, column], ...]], ...], cut, cutTests: [[line, column], ...] }.
// There are at most argument.most URLs, without duplicates. The pairs are the places of the tests
// from which the URL was made. cut: true if the limit left out URLs. cutTests: the tests whose URLs
// were left out.
'use strict';

const alwaysAsked = [
  'http://localhost/', 'http://127.0.0.1/', 'http://intranet/', 'http://www.example.org/',
  'https://www.example.org/', 'ftp://ftp.example.org/', 'ws://www.example.org/', 'http://10.1.2.3/',
  'http://172.16.1.1/', 'http://192.168.1.1/', 'http://169.254.1.1/', 'http://[::1]/',
  'http://[fe80::1]/', 'http://192.0.2.1/',
];

// A text that a shell expression matches, and a similar text that the expression does not match.
function filled(pattern) {
  const text = pattern.replace(/\*/g, 'a').replace(/\?/g, 'x');
  return [text, pattern.replace(/\*/g, '').replace(/\?/g, 'x')];
}

function hostsOf(name) {
  if (name.startsWith('.')) return [`www${name}`, name.slice(1), `bad${name.slice(1)}`, `a.b${name}`];
  return [name, `www.${name}`, `bad${name}`, name.split('.')[0]];
}

function isHostLike(text) {
  return /^[a-z0-9_.-]*[a-z0-9]$/i.test(text) && (text.includes('.') || /[a-z]/i.test(text));
}

function isQuad(text) {
  return /^\d+\.\d+\.\d+\.\d+$/.test(text);
}

// The text of a literal, or of a template without expressions; undefined for other nodes.
function plainTextOf(node) {
  if (node.type === 'TemplateLiteral' && node.quasis.length === 1) return node.quasis[0].value.cooked ?? undefined;
  return node.type === 'Literal' && typeof node.value === 'string' ? node.value : undefined;
}

function numberOfQuad(quad) {
  return quad.split('.').reduce((sum, field) => ((sum << 8) | field) >>> 0, 0);
}

// The first and last address of a network, and the addresses next to them. The mask is a number.
function addressesOf(address, mask) {
  const quad = (value) => [24, 16, 8, 0].map((bits) => (value >>> bits) & 255).join('.');
  const first = (numberOfQuad(address) & mask) >>> 0;
  const last = (first | ~mask) >>> 0;
  return [first + 1, last, first - 1, last + 1].map((value) => quad(value >>> 0));
}

// Maximum number of texts that are made from a regular expression.
const mostRegexTexts = 8;

// Texts that a regular expression matches, in part or as a whole. No texts if it has parts that
// RegexPaths does not support.
function textsOfRegex(pattern) {
  // Only the parser of RegexPaths is used here, without its automaton.
  const parser = Object.assign(Object.create(RegexPaths.prototype), { source: pattern, at: 0 });
  try {
    return pattern.length > longestPattern ? [] : textsOfPart(parser.alternatives());
  } catch (error) {
    if (error instanceof Unsupported) return [];
    throw error;
  }
}

function textsOfPart(part) {
  if (part.options) return part.options.flatMap(textsOfPart).slice(0, mostRegexTexts);
  if (part.items) return part.items.reduce((texts, item) => combined(texts, textsOfPart(item)), ['']);
  if (part.atom !== undefined) return [textOfAtom(part.atom)];
  if (part.item.atom === '.') return ['a'];
  const once = textsOfPart(part.item);
  if (part.low === 0) return [...once.slice(0, mostRegexTexts - 1), ''];
  return Array(Math.min(part.low, 100)).fill(once).reduce(combined);
}

// Each text with each of the others behind it.
function combined(texts, others) {
  const all = texts.flatMap((text) => others.map((other) => text + other)).slice(0, mostRegexTexts);
  if (all.some(({ length }) => length > longestPattern)) throw new Unsupported();
  return all;
}

// A text that an atom of a regular expression matches. A "." is usually meant as itself.
function textOfAtom(atom) {
  if (atom === '^' || atom === '$') return '';
  if (atom.startsWith('[^')) return 'a';
  if (atom.startsWith('[')) return textOfAtom(/^\[(\\?[^\]]|)/.exec(atom)[1]);
  if (/^\\[DSw]$/.test(atom)) return 'a';
  if (atom === '\\d') return '1';
  if (/^\\[a-z]/i.test(atom)) throw new Unsupported();
  return atom.replace('\\', '');
}

// The parts of a list in one text: "a.example,b.example" or "a.example b.example". A text with one
// part, or with a part that is no host or pattern, is no list.
function partsOfList(text) {
  const parts = text.split(/[\s,;|]+/).filter((part) => part !== '');
  const isPart = /\s/.test(text) ? /^[\w*?-]*\.[\w.*?-]*$/ : /^[\w.*?-]+$/;
  return parts.length > 1 && parts.every((part) => isPart.test(part)) ? parts : [];
}

class UrlMaker {
  constructor(script, most) {
    this.script = script;
    this.most = most;
    this.constants = new Map(); // variable -> the text of its declaration
    this.urls = new Map(); // URL -> the tests of the script from which the URL was made
    this.test = null;
    this.cut = false;
    this.cutTests = new Set();
  }

  add(url) {
    if (url.length > 2000) return;
    if (!this.urls.has(url)) {
      if (this.urls.size >= this.most) {
        this.cut = true;
        if (this.test) this.cutTests.add(this.test);
        return;
      }
      this.urls.set(url, new Set());
    }
    if (this.test) this.urls.get(url).add(this.test);
  }

  host(host) {
    if (host === '' || /[\s/:@?#]/.test(host)) return;
    this.add(`http://${host}/`);
    this.add(`https://${host}/`);
  }

  // A pattern of shExpMatch, for a host or for a whole URL. A "|" separates alternatives.
  pattern(pattern) {
    for (const text of pattern.split('|').flatMap(filled)) {
      if (/^[a-z][a-z0-9+.-]*:/i.test(text)) this.add(text);
      else if (text.includes('/')) this.add(`http://${text.replace(/^\/+/, '')}`);
      else for (const host of hostsOf(text.replace(/:.*$/, ''))) this.host(host);
    }
  }

  network(address, mask) {
    for (const host of addressesOf(address, mask)) this.host(host);
  }

  // A network as "203.0.113.0/24".
  prefix(text) {
    const [address, bits] = text.split('/');
    this.network(address, bits === '0' ? 0 : -1 << (32 - bits));
  }

  literal(value) {
    const parts = partsOfList(value);
    if (parts.length > 0) return void parts.forEach((part) => this.literal(part));
    if (value.length === 0 || value.length > 500 || /\s/.test(value)) return;
    const url = /^([a-z][a-z0-9+.-]*):(\/\/)?(.*)$/i.exec(value);
    if (/[*?]/.test(value)) this.pattern(value);
    else if (isQuad(value)) this.host(value);
    else if (/^\d+\.\d+\.\d+\.\d+\/\d+$/.test(value)) this.prefix(value);
    else if (url !== null && url[3] === '') this.add(`${url[1]}://www.example.org/`);
    else if (url !== null) this.add(value);
    else if (value.includes('/')) this.add(`http://www.example.org/${value.replace(/^\/+/, '')}`);
    else if (isHostLike(value)) for (const host of hostsOf(value)) this.host(host);
  }

  call(node) {
    const texts = node.arguments.map((argument) => this.textOf(argument));
    if (node.callee.name === 'isInNet' && isQuad(texts[1]) && isQuad(texts[2])) {
      this.network(texts[1], numberOfQuad(texts[2]));
      return true;
    }
    if (node.callee.name === 'RegExp' && texts[0] !== undefined) {
      this.regex(texts[0]);
      return true;
    }
    return ['weekdayRange', 'dateRange', 'timeRange', 'alert'].includes(node.callee.name);
  }

  regex(pattern) {
    for (const text of textsOfRegex(pattern)) this.literal(text);
  }

  // The text of an expression; undefined if the text is not constant.
  textOf(node) {
    if (node.type === 'Identifier') return this.constants.get(node.name);
    return plainTextOf(node);
  }

  // Notes the texts of variables.
  collect(node) {
    if (node.type === 'VariableDeclarator' && node.init && node.id.type === 'Identifier') {
      const text = plainTextOf(node.init);
      if (text !== undefined) this.constants.set(node.id.name, text);
    }
    for (const child of childrenOf(node)) this.collect(child);
  }

  visit(node) {
    const isCall = node.type === 'CallExpression' || node.type === 'NewExpression';
    if (isCall && node.callee.type === 'Identifier' && this.call(node)) return;
    // A returned text names proxies, so no URL is made from it.
    const text = plainTextOf(node.type === 'ReturnStatement' && node.argument ? node.argument : node);
    if (node.type === 'ReturnStatement' && text !== undefined) return;
    if (text !== undefined) this.literal(text);
    if (node.regex) this.regex(node.regex.pattern);
    const isBranch = node.type === 'IfStatement' || node.type === 'ConditionalExpression';
    for (const child of childrenOf(node)) {
      const outer = this.test;
      if (isBranch) this.test = child === node.test ? child : null;
      this.visit(child);
      this.test = outer;
    }
  }

  placesOf(tests) {
    return [...tests].map(({ start }) => [this.script.lineOf(start), this.script.columnOf(start)]);
  }
}

commands.urls = (script, argument) => {
  const maker = new UrlMaker(script, argument.most || 2000);
  for (const url of alwaysAsked) maker.add(url);
  maker.collect(script.tree);
  maker.visit(script.tree);
  return {
    urls: [...maker.urls].map(([url, tests]) => [url, maker.placesOf(tests)]),
    cut: maker.cut,
    cutTests: maker.placesOf(maker.cutTests),
  };
};
