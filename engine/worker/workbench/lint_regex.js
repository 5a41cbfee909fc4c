// Finds regular expressions that may run nearly forever. In such an expression, a repetition can
// match the same text in many ways, and something after the repetition may fail. Then the engine
// tries all ways.
//
// The pattern becomes an automaton. A position is a character of the pattern, and an edge leads to
// each position that may match the next character. If two different paths with the same text lead
// from a position back to the same position, each round doubles the number of ways.
'use strict';

// The limits of the examination. A pattern that is longer, has more positions or needs more steps
// is not examined, and counts as harmless.
const longestPattern = 1000;
const mostPositions = 200;
const mostSteps = 200_000;

class Unsupported extends Error {}

// The positions and edges of a pattern.
class RegexPaths {
  constructor(regex) {
    this.source = regex.pattern;
    this.flags = regex.flags.replace(/[gyd]/g, '');
    this.at = 0;
    this.steps = 0;
    this.matched = []; // position -> the ASCII characters that it matches, as bits
    this.edges = []; // position -> Map of the next position and the number of ways to it
    this.before = []; // position -> the positions before it
    const pattern = this.alternatives();
    if (this.at < this.source.length) throw new Unsupported();
    this.ends = new Set(this.build(pattern).last);
  }

  // --- The syntax ---

  alternatives() {
    const options = [this.sequence()];
    while (this.take('|')) options.push(this.sequence());
    return { options };
  }

  sequence() {
    const items = [];
    while (this.at < this.source.length && !/[|)]/.test(this.source[this.at])) {
      items.push(this.repeated(this.item()));
    }
    return { items };
  }

  take(text) {
    if (!this.source.startsWith(text, this.at)) return false;
    this.at += text.length;
    return true;
  }

  item() {
    const rest = this.source.slice(this.at);
    if (/^\(\?(?!:|<[^=!])/.test(rest) || /^\\[bBk1-9]/.test(rest)) throw new Unsupported();
    const group = /^\((?:\?:|\?<[^>]*>)?/.exec(rest);
    if (!group) {
      const [atom] = /^(?:\\(?:[xu][0-9a-f]+|[pPu]\{[^}]*\}|c.|.)|\[(?:\\.|[^\]\\])*\]|.)/is.exec(rest);
      this.at += atom.length;
      return { atom };
    }
    this.at += group[0].length;
    const inner = this.alternatives();
    if (!this.take(')')) throw new Unsupported();
    return inner;
  }

  repeated(item) {
    const found = /^(?:[*+?]|\{(\d+)(,?)(\d*)\})\??/.exec(this.source.slice(this.at));
    if (!found) return item;
    this.at += found[0].length;
    const [text, low, comma, high] = found;
    if (low === undefined) return { item, low: text[0] === '+' ? 1 : 0, high: text[0] === '?' ? 1 : Infinity };
    return { item, low: Number(low), high: high !== '' ? Number(high) : comma ? Infinity : Number(low) };
  }

  // --- The automaton ---

  // Adds the positions of a part. @return the first and the last of them, and whether the part
  // matches the empty text
  build(part) {
    this.step();
    if (part.atom !== undefined) return this.position(part.atom);
    if (part.options) {
      const built = part.options.map((option) => this.build(option));
      return {
        first: built.flatMap(({ first }) => first), last: built.flatMap(({ last }) => last),
        isEmpty: built.some(({ isEmpty }) => isEmpty),
      };
    }
    if (part.items) return part.items.reduce((all, item) => this.join(all, this.build(item)), empty());
    return this.repeat(part);
  }

  step() {
    if (++this.steps > mostSteps) throw new Unsupported();
  }

  repeat({ item, low, high }) {
    let all = empty();
    const copies = high === Infinity ? Math.max(1, low) : high;
    for (let copy = 1; copy <= copies; copy++) {
      const built = this.build(item);
      if (high === Infinity && copy === copies) this.connect(built.last, built.first);
      all = this.join(all, { ...built, isEmpty: built.isEmpty || copy > low });
    }
    return all;
  }

  position(atom) {
    if (this.matched.length === mostPositions) throw new Unsupported();
    this.matched.push(asciiOf(atom, this.flags));
    this.edges.push(new Map());
    this.before.push([]);
    const only = [this.matched.length - 1];
    return { first: only, last: only, isEmpty: false };
  }

  join(one, other) {
    this.connect(one.last, other.first);
    return {
      first: one.isEmpty ? [...one.first, ...other.first] : one.first,
      last: other.isEmpty ? [...one.last, ...other.last] : other.last,
      isEmpty: one.isEmpty && other.isEmpty,
    };
  }

  connect(from, to) {
    for (const one of from) {
      for (const other of to) {
        this.edges[one].set(other, (this.edges[one].get(other) ?? 0) + 1);
        this.before[other].push(one);
      }
    }
  }

  // --- Ways ---

  hasManyWays() {
    const after = (at) => this.edges[at].keys();
    const seen = new Set();
    for (let start = 0; start < this.edges.length; start++) {
      if (seen.has(start)) continue;
      const back = reachedFrom([start], (at) => this.before[at]);
      const loop = new Set([...reachedFrom([start], after)].filter((at) => back.has(at)));
      for (const at of loop) seen.add(at);
      // If the loop contains an end of the pattern, the pattern can always end there, so nothing
      // fails.
      if (![...loop].some((at) => this.ends.has(at)) && this.isAmbiguous(loop)) return true;
    }
    return false;
  }

  // Whether two different paths in the loop lead from a position back to the same position with the
  // same text. A pair of positions stands for two paths with the same text: each path has reached
  // one position of the pair.
  isAmbiguous(loop) {
    for (const at of loop) {
      for (const [to, ways] of this.edges[at]) if (ways > 1 && loop.has(to)) return true;
    }
    const count = this.edges.length;
    const before = new Map();
    const nextOf = (pair) => {
      const found = [];
      for (const one of this.edges[Math.floor(pair / count)].keys()) {
        for (const other of this.edges[pair % count].keys()) {
          this.step();
          if (!loop.has(one) || !loop.has(other) || (this.matched[one] & this.matched[other]) === 0n) continue;
          const next = one * count + other;
          found.push(next);
          if (!before.has(next)) before.set(next, []);
          before.get(next).push(pair);
        }
      }
      return found;
    };
    const equal = [...loop].map((at) => at * count + at);
    const reached = [...reachedFrom(equal, nextOf)];
    const back = reachedFrom(equal, (pair) => before.get(pair) ?? []);
    return reached.some((pair) => Math.floor(pair / count) !== pair % count && back.has(pair));
  }
}

function empty() {
  return { first: [], last: [], isEmpty: true };
}

function reachedFrom(starts, nextOf) {
  const reached = new Set(starts);
  const open = [...starts];
  while (open.length > 0) {
    for (const next of nextOf(open.pop())) {
      if (reached.has(next)) continue;
      reached.add(next);
      open.push(next);
    }
  }
  return reached;
}

const asciiOfAtoms = new Map();

// The ASCII characters that a part of a pattern matches, as bits. "^" and "$" match no character.
function asciiOf(atom, flags) {
  const key = `${flags} ${atom}`;
  if (!asciiOfAtoms.has(key)) {
    const isAnchor = atom === '^' || atom === '$';
    const regex = new RegExp(isAnchor ? '[]' : `^${atom}$`, flags);
    let bits = 0n;
    for (let code = 0; code < 128; code++) {
      if (regex.test(String.fromCharCode(code))) bits |= 1n << BigInt(code);
    }
    asciiOfAtoms.set(key, bits);
  }
  return asciiOfAtoms.get(key);
}

// Whether a regular expression, an object with pattern and flags, may run without end. False if
// this is not known.
function mayRunWithoutEnd(regex) {
  const { pattern, flags } = regex;
  if (pattern.length > longestPattern || !/\)[*+{]/.test(pattern) || flags.includes('v')) return false;
  try {
    return new RegexPaths(regex).hasManyWays();
  } catch (error) {
    if (error instanceof Unsupported) return false;
    throw error;
  }
}
