// The rules about tests of the host and of the URL.
'use strict';

// A longer text is not a DNS name. The time to match a pattern can grow with the square of the
// length.
const longestName = 253;

// The parts of a regular expression that contain letters, but do not match these letters: \p{Lu},
// \u0041, (?<Name> ...
const escapesAndNames = /\\(?:[pPu]\{[^}]*\}|k<[^>]*>|x[0-9a-f]{2}|u[0-9a-f]{4}|c.|.)|\(\?<[^>]*>/gis;

const hostRules = {
  // Programs ask about the canonical URL: its scheme and host are in lower case.
  'host-case'(lint) {
    for (const test of lint.hosts.all) {
      const part = test.subject === 'host' ? test.text : /^[^/]*:\/\/[^/]*/.exec(test.text)?.[0] ?? '';
      if (!/[A-Z]/.test(part)) continue;
      lint.report(test.node, `the ${test.subject} is compared with "${test.text}", which has upper case`,
        `write "${part.toLowerCase()}${test.text.slice(part.length)}"`);
    }
    for (const node of lint.tree.of('CallExpression')) {
      const regex = regexOn(lint.tree, node, 'host');
      if (!regex || regex.flags.includes('i')) continue;
      const letters = regex.pattern.replace(escapesAndNames, '').replace(/\[[^\]]*\]/g, '');
      if (/[A-Z]/.test(letters)) {
        lint.report(node, `the host is compared with /${regex.pattern}/, which has upper case`,
          'write it in lower case, or add the flag i');
      }
    }
  },

  'domain-dot'(lint) {
    for (const { node, subject, text, how } of lint.hosts.all) {
      const isPattern = how === 'shExpMatch' && /^\*[^*?]*$/.test(text);
      if (subject !== 'host' || !(isPattern || how === 'dnsDomainIs' || how === 'endsWith')) continue;
      const domain = isPattern ? text.slice(1) : text;
      if (domain.length > longestName || !/^[a-z0-9_][a-z0-9_.-]*$/i.test(domain)) continue;
      if (!/[a-z][a-z0-9.]*$/i.test(domain)) continue; // the text is an address
      const called = `${isPattern ? '*.' : '.'}${domain}`;
      lint.report(node, `"${text}" also matches "bad${domain}"`,
        `write "${called}", and for the domain itself host == "${domain}"`);
    }
  },

  'shexp-regex'(lint) {
    for (const node of lint.tree.of('CallExpression')) {
      if (!lint.tree.isHelper(node, 'shExpMatch') || node.arguments.length < 2) continue;
      for (const { text } of lint.tree.textsOf(node.arguments[1])) {
        if (text === null || text.includes(unknownText) || !shellSpecials.test(text)) continue;
        const special = shellSpecials.exec(text)[0];
        const fix = special === '|' ? 'write one shExpMatch for each alternative, joined by ||'
          : 'match with a regular expression, /.../.test(host), or leave the character out';
        if (isValidShell(text)) {
          lint.report(node, `"${special}" in "${text}" acts as in a regular expression`, fix);
        } else {
          lint.report(node, `"${text}" makes shExpMatch throw, as "${special}" acts as in a regular ` +
            'expression', fix, 'error');
        }
      }
    }
  },

  'https-path'(lint) {
    for (const { node, subject, text, how } of lint.hosts.all) {
      const path = subject === 'url' && /^(?:https|wss):\/\/[^/]*\/(.+)$/i.exec(text)?.[1];
      if (!path || /^\*+$/.test(path)) continue;
      const before = text.slice(0, text.length - path.length);
      lint.report(node, `"${text}" asks for the path of a URL whose path is always "/"`,
        `test the host alone, as in "${before}${how === 'shExpMatch' ? '*' : ''}"`);
    }
  },

  'isinnet-name'(lint) {
    for (const node of lint.tree.of('CallExpression')) {
      if (!lint.tree.isHelper(node, 'isInNet') || node.arguments.length === 0) continue;
      const name = lint.lookups.nameOf(node);
      if (name === null) continue;
      lint.report(node, `isInNet looks up ${name === 'host' ? 'the host' : `"${name}"`} if it is a name`,
        name === 'host' ? 'test addresses alone, isValidIpAddress(host) && isInNet(host, ...), or put ' +
          'dnsResolve(host) into a variable behind the tests that need no address'
          : 'give isInNet an address');
    }
  },

  'dns-first'(lint) {
    const reported = new Set();
    const report = (call, before) => {
      if (!call || reported.has(call)) return;
      reported.add(call);
      lint.report(call, `a name is looked up before the test of line ${lint.lineOf(before)}, which needs ` +
        'no lookup', 'put tests of the text of host and url first');
    };
    for (const list of statementLists(lint.tree)) {
      // The loop goes from the last step to the first, so that each lookup finds the first cheap
      // test after it.
      let cheap = null;
      for (const { test, body, node } of stepsOf(list).reverse()) {
        const isCheap = test && endsFunction(body) && lint.lookups.isCheapTest(test);
        if (isCheap) cheap = test;
        else if (cheap && !functionTypes.has(node.type)) report(lint.lookups.firstIn(test ?? body, true), cheap);
      }
    }
    for (const node of lint.tree.of('LogicalExpression')) {
      if (node[parentOf].type === 'LogicalExpression' && node[parentOf].operator === node.operator) continue;
      let cheap = null;
      for (const operand of operandsOf(node).reverse()) {
        const call = lint.lookups.firstIn(operand, false);
        if (call && cheap) report(call, cheap);
        if (!call && lint.lookups.isCheapTest(operand)) cheap = operand;
      }
    }
  },

  'date-month-end'(lint) {
    for (const node of lint.tree.of('CallExpression')) {
      if (!lint.tree.isHelper(node, 'dateRange')) continue;
      const parts = node.arguments.map((argument) => argument.type === 'Literal' ? argument.value : null);
      const zone = parts.at(-1) === 'GMT' ? [parts.pop()] : [];
      if (parts.length < 2 || parts.some((part) => part === null)) continue;
      // dateRange(DAY, MONTH) is a range of days of the current month.
      if (parts.length === 2 && isDay(parts[0])) continue;
      const first = parts.slice(0, parts.length >> 1);
      const last = parts.slice(parts.length >> 1);
      const found = monthOverflow(last);
      if (!found) continue;
      lint.report(node, `${found.month} has no day ${found.day}, so the range ends in the next month`,
        `write ${inPlaceOf(node, rangeInMonth(first, last, found.month, zone))}`);
    }
  },
};

const monthDays = {
  JAN: 31, FEB: 28, MAR: 31, APR: 30, MAY: 31, JUN: 30, JUL: 31, AUG: 31, SEP: 30, OCT: 31, NOV: 30,
  DEC: 31,
};

// Finds a month that does not have the day that dateRange sets before the month. dateRange starts
// from 31 December, and sets one part after the other from `parts`, the second half of its
// arguments.
// @return { month, day }, or null
function monthOverflow(parts) {
  let day = 31;
  for (const part of parts) {
    if (typeof part === 'number' && part < 32) day = part;
    const most = part === 'FEB' ? 29 : monthDays[part];
    if (most !== undefined && day > most) return { month: part, day };
  }
  return null;
}

function isDay(part) {
  return typeof part === 'number' && part < 32;
}

// The text of dateRange calls for the intended range of dates, which ends on the last day of
// `month`. The last day of February is not the same in each year: if a year has no 29 February,
// dateRange uses 1 March.
function rangeInMonth(first, last, month, zone) {
  const call = (...parts) => `dateRange(${[...parts, ...zone].map((part) => JSON.stringify(part)).join(', ')})`;
  const day = first.find(isDay);
  const begin = day === undefined ? [1, ...first] : first;
  const year = last.find((part) => typeof part === 'number' && part >= 32);
  if (month !== 'FEB' || year !== undefined) {
    const most = month !== 'FEB' ? monthDays[month] : new Date(year, 1, 29).getMonth() === 1 ? 29 : 28;
    return call(...begin, most, ...last.filter((part) => !isDay(part)));
  }
  if (!first.includes('FEB')) return `${call(...begin, 31, 'JAN')} || ${call('FEB')}`;
  return day > 1 ? `${call('FEB')} && ${call(day, 31)}` : call('FEB');
}

// The expression with parentheses, if it needs them in the place of `node`.
function inPlaceOf(node, expression) {
  const isOperand = /^(Unary|Binary|Logical|Member)Expression$/.test(node[parentOf].type);
  return isOperand && /[|&]/.test(expression) ? `(${expression})` : expression;
}

// Whether shExpMatch can make a regular expression of the text.
function isValidShell(text) {
  const source = text.replace(/\./g, '\\.').replace(/\*/g, '.*').replace(/\?/g, '.');
  try {
    return new RegExp(`^${source}$`) !== null;
  } catch {
    return false;
  }
}

// The regular expression that the call matches against the subject, or null.
function regexOn(tree, call, subject) {
  if (call.callee.type !== 'MemberExpression' || call.callee.computed || call.arguments.length < 1) return null;
  const { object, property } = call.callee;
  if (property.name === 'test' || property.name === 'exec') {
    return object.regex && tree.subjectOf(call.arguments[0]) === subject ? object.regex : null;
  }
  const isSearch = property.name === 'match' || property.name === 'search';
  return isSearch && tree.subjectOf(object) === subject ? call.arguments[0].regex ?? null : null;
}
