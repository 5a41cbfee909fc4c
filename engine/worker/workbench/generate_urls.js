// The command "urls": URLs that make a script decide in both ways. They come from the hosts,
// networks and patterns in the script.
//
// Report: { urls: [[url, line], ...] }, without duplicates, at most argument.most. A line of 0
// marks a URL that is used for every script.
'use strict';

const alwaysAsked = [
  'http://localhost/', 'http://127.0.0.1/', 'http://intranet/', 'http://www.example.org/',
  'https://www.example.org/', 'ftp://ftp.example.org/', 'ws://www.example.org/', 'http://10.1.2.3/',
  'http://172.16.1.1/', 'http://192.168.1.1/', 'http://169.254.1.1/', 'http://[::1]/',
  'http://[fe80::1]/', 'http://192.0.2.1/',
];

// A text that a shell expression matches, and a similar text that it does not match.
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
    this.urls = new Map();
  }

  add(url, line) {
    if (this.urls.size < this.most && url.length <= 2000 && !this.urls.has(url)) this.urls.set(url, line);
  }

  host(host, line) {
    if (host === '' || /[\s/:@?#]/.test(host)) return;
    this.add(`http://${host}/`, line);
    this.add(`https://${host}/`, line);
  }

  // A pattern of shExpMatch, for a host or for a whole URL.
  pattern(pattern, line) {
    for (const text of filled(pattern)) {
      if (/^[a-z][a-z0-9+.-]*:/i.test(text)) this.add(text, line);
      else if (text.includes('/')) this.add(`http://${text.replace(/^\/+/, '')}`, line);
      else for (const host of hostsOf(text.replace(/:.*$/, ''))) this.host(host, line);
    }
  }

  literal(value, line) {
    if (value.length === 0 || value.length > 500 || /\s/.test(value)) return;
    const url = /^([a-z][a-z0-9+.-]*):(\/\/)?(.*)$/i.exec(value);
    if (/[*?]/.test(value)) this.pattern(value, line);
    else if (/^\d+\.\d+\.\d+\.\d+$/.test(value)) this.host(value, line);
    else if (url !== null && url[3] === '') this.add(`${url[1]}://www.example.org/`, line);
    else if (url !== null) this.add(value, line);
    else if (value.includes('/')) this.add(`http://www.example.org/${value.replace(/^\/+/, '')}`, line);
    else if (isHostLike(value)) for (const host of hostsOf(value)) this.host(host, line);
  }

  call(node) {
    const texts = node.arguments.map((argument) => argument.type === 'Literal' ? argument.value : null);
    const line = this.script.lineOf(node.start);
    const isQuad = (text) => typeof text === 'string' && /^\d+\.\d+\.\d+\.\d+$/.test(text);
    if (node.callee.name === 'isInNet' && isQuad(texts[1]) && isQuad(texts[2])) {
      for (const address of addressesOf(texts[1], texts[2])) this.host(address, line);
      return true;
    }
    return ['weekdayRange', 'dateRange', 'timeRange', 'alert'].includes(node.callee.name);
  }

  visit(node) {
    if (node.type === 'CallExpression' && node.callee.type === 'Identifier' && this.call(node)) return;
    // A returned text names proxies.
    if (node.type === 'ReturnStatement' && node.argument && node.argument.type === 'Literal') return;
    if (node.type === 'Literal' && typeof node.value === 'string') {
      this.literal(node.value, this.script.lineOf(node.start));
    }
    for (const child of childrenOf(node)) this.visit(child);
  }
}

commands.urls = (script, argument) => {
  const maker = new UrlMaker(script, argument.most || 2000);
  for (const url of alwaysAsked) maker.add(url, 0);
  maker.visit(script.tree);
  return { urls: [...maker.urls] };
};
