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

// The first and last address of a network, and the addresses next to them.
function addressesOf(address, mask) {
  const number = (quad) => quad.split('.').reduce((sum, field) => ((sum << 8) | field) >>> 0, 0);
  const quad = (value) => [24, 16, 8, 0].map((bits) => (value >>> bits) & 255).join('.');
  const bits = number(mask);
  const first = (number(address) & bits) >>> 0;
  const last = (first | ~bits) >>> 0;
  return [first + 1, last, first - 1, last + 1].map((value) => quad(value >>> 0));
}

class UrlMaker {
  constructor(script, most) {
    this.script = script;
    this.most = most;
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

  // A pattern of shExpMatch, for a host or for a whole URL.
  pattern(pattern) {
    for (const text of filled(pattern)) {
      if (/^[a-z][a-z0-9+.-]*:/i.test(text)) this.add(text);
      else if (text.includes('/')) this.add(`http://${text.replace(/^\/+/, '')}`);
      else for (const host of hostsOf(text.replace(/:.*$/, ''))) this.host(host);
    }
  }

  literal(value) {
    if (value.length === 0 || value.length > 500 || /\s/.test(value)) return;
    const url = /^([a-z][a-z0-9+.-]*):(\/\/)?(.*)$/i.exec(value);
    if (/[*?]/.test(value)) this.pattern(value);
    else if (/^\d+\.\d+\.\d+\.\d+$/.test(value)) this.host(value);
    else if (url !== null && url[3] === '') this.add(`${url[1]}://www.example.org/`);
    else if (url !== null) this.add(value);
    else if (value.includes('/')) this.add(`http://www.example.org/${value.replace(/^\/+/, '')}`);
    else if (isHostLike(value)) for (const host of hostsOf(value)) this.host(host);
  }

  call(node) {
    const texts = node.arguments.map((argument) => argument.type === 'Literal' ? argument.value : null);
    const isQuad = (text) => typeof text === 'string' && /^\d+\.\d+\.\d+\.\d+$/.test(text);
    if (node.callee.name === 'isInNet' && isQuad(texts[1]) && isQuad(texts[2])) {
      for (const address of addressesOf(texts[1], texts[2])) this.host(address);
      return true;
    }
    return ['weekdayRange', 'dateRange', 'timeRange', 'alert'].includes(node.callee.name);
  }

  visit(node) {
    if (node.type === 'CallExpression' && node.callee.type === 'Identifier' && this.call(node)) return;
    // A returned text names proxies, so no URL is made from it.
    if (node.type === 'ReturnStatement' && node.argument && node.argument.type === 'Literal') return;
    if (node.type === 'Literal' && typeof node.value === 'string') this.literal(node.value);
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
  maker.visit(script.tree);
  return {
    urls: [...maker.urls].map(([url, tests]) => [url, maker.placesOf(tests)]),
    cut: maker.cut,
    cutTests: maker.placesOf(maker.cutTests),
  };
};
