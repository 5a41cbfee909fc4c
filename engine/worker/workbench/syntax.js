// The part that all commands of the workbench share: the script with its lines and its syntax tree.
//
// The file of a command adds functions to `commands`. Each function gets the Script and the
// argument, an object, and returns an object. The library receives this object as JSON. The scripts
// of this folder run in one global scope, in their own engine. The script under test is only a text
// here.
'use strict';

const commands = {};

// Thrown for a script that the parser rejects.
class Unparsed extends Error {
  constructor(message, line) {
    super(message);
    this.line = line;
  }
}

class Script {
  constructor(text) {
    this.text = text;
    this.lineStarts = null;
    this.parsed = null;
    this.comments = [];
  }

  // The syntax tree of acorn: https://github.com/estree/estree. Throws Unparsed.
  get tree() {
    if (this.parsed === null) {
      try {
        this.parsed = acorn.parse(this.text, {
          ecmaVersion: 'latest',
          allowHashBang: true,
          onComment: this.comments,
        });
      } catch (error) {
        if (!(error instanceof SyntaxError)) {
          throw new Unparsed('it is nested more deeply than the parser can follow', 0);
        }
        const message = error.message.replace(/ \(\d+:\d+\)$/, '');
        throw new Unparsed(message, error.pos === undefined ? 0 : this.lineOf(error.pos));
      }
    }
    return this.parsed;
  }

  // The line of an offset, from 1, as editors and the engine count: only "\n" ends a line.
  // (The library has converted all other line ends to "\n".)
  lineOf(offset) {
    if (this.lineStarts === null) {
      this.lineStarts = [0];
      for (let at = this.text.indexOf('\n'); at >= 0; at = this.text.indexOf('\n', at + 1)) {
        this.lineStarts.push(at + 1);
      }
    }
    let low = 0;
    let high = this.lineStarts.length;
    while (high - low > 1) {
      const middle = (low + high) >> 1;
      if (this.lineStarts[middle] <= offset) low = middle;
      else high = middle;
    }
    return low + 1;
  }

  // The column of an offset, from 1, in UTF-16 units.
  columnOf(offset) {
    return offset - this.lineStarts[this.lineOf(offset) - 1] + 1;
  }

  // The source of a node in one line, at most `most` characters.
  sourceOf(node, most = 200) {
    const text = this.text.slice(node.start, Math.min(node.end, node.start + 4 * most));
    const line = text.replace(/\s+/g, ' ');
    const isWhole = node.end - node.start <= 4 * most && line.length <= most;
    return isWhole ? line : line.slice(0, most).replace(/[\ud800-\udbff]$/, '') + '...';
  }
}

// The nodes below `node`, in source order. One exception: the test of a SwitchCase comes after its
// statements.
function childrenOf(node) {
  const children = [];
  for (const key in node) {
    const value = node[key];
    if (value === null || typeof value !== 'object') continue;
    if (Array.isArray(value)) {
      for (const item of value) if (item !== null && item.type !== undefined) children.push(item);
    } else if (value.type !== undefined && value !== node) {
      children.push(value);
    }
  }
  return children;
}

// The names of the PAC helpers.
const helperNames = new Set([
  'alert', 'myIpAddress', 'dnsResolve', 'isPlainHostName', 'dnsResolveEx', 'myIpAddressEx',
  'sortIpAddressList', 'isInNetEx', 'getClientVersion', 'dnsDomainIs', 'dnsDomainLevels',
  'isValidIpAddress', 'convert_addr', 'isInNet', 'isResolvable', 'localHostOrDomainIs', 'shExpMatch',
  'weekdayRange', 'dateRange', 'timeRange', 'isResolvableEx',
]);

let theScript = null;

// The two functions that the program (parser.cpp) calls.
function open(text) {
  theScript = new Script(text);
  return '';
}

// The report as JSON. A text of the script may contain half a surrogate pair, which UTF-8 cannot
// encode. It becomes U+FFFD.
function reportOf(report) {
  return JSON.stringify(report, (key, value) => typeof value === 'string' ? value.toWellFormed() : value);
}

function run(name, argument) {
  try {
    if (!Object.hasOwn(commands, name)) throw new Error(`there is no command ${name}`);
    return reportOf(commands[name](theScript, argument === '' ? {} : JSON.parse(argument)));
  } catch (error) {
    if (!(error instanceof Unparsed)) throw error;
    return reportOf({ unparsed: error.message, line: error.line });
  }
}
