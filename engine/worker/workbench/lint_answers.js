// The rules about the answers of a script.
'use strict';

// The keywords of entries that browsers support.
const knownKeywords = new Set([
  'DIRECT', 'PROXY', 'HTTP', 'HTTPS', 'SOCKS', 'SOCKS4', 'SOCKS5', 'QUIC',
]);

// Characters that "host:port" never has. They usually separate "host:port" from a path or from the
// next entry.
const notInAddress = /[/,\s]/;

const answerRules = {
  'entry-dropped'(lint) {
    for (const { node, raw, keyword, address } of lint.entries()) {
      if (keyword === null || (address === '' && keyword.toUpperCase() !== 'DIRECT')) continue;
      if (!knownKeywords.has(keyword.toUpperCase()) || isTaken(raw)) continue;
      const shown = raw.trim();
      if (keyword !== keyword.toUpperCase()) {
        lint.report(node, `the daemon drops "${shown}": its keyword is not in capitals`,
          `write ${keyword.toUpperCase()}`);
      } else if (keyword === 'DIRECT' || keyword === 'PROXY' || keyword === 'SOCKS') {
        lint.report(node, `the daemon drops "${raw}"`, keyword === 'DIRECT'
          ? 'write DIRECT with nothing behind it but the ";"'
          : `write one blank behind ${keyword}, and nothing but blanks before it`);
      } else {
        lint.report(node, `the daemon drops "${shown}": it accepts DIRECT, PROXY and SOCKS`,
          keyword.startsWith('SOCKS') ? 'write SOCKS in addition' : 'write PROXY in addition');
      }
    }
  },

  'entry-unknown'(lint) {
    for (const { node, raw, keyword, address } of lint.entries()) {
      if (keyword === null) continue;
      const shown = raw.trim().replaceAll(unknownText, '...');
      if (!knownKeywords.has(keyword.toUpperCase())) {
        lint.report(node, `"${shown}" is no entry that a browser knows`,
          'write DIRECT, or PROXY or SOCKS with host:port, and ";" between entries');
      } else if (address === '' && keyword.toUpperCase() !== 'DIRECT') {
        lint.report(node, `"${shown}" names no proxy`, `write "${keyword.toUpperCase()} host:port"`);
      } else if (address?.includes('://')) {
        lint.report(node, `"${shown}" has a URL in the place of host:port`,
          `write "${keyword.toUpperCase()} ${address.replace(/^.*:\/\//, '').replace(/\/.*$/, '')}"`);
      } else if (keyword.toUpperCase() !== 'DIRECT' && notInAddress.test(address)) {
        const [wrong] = notInAddress.exec(address);
        lint.report(node, `"${shown}" has ${/\s/.test(wrong) ? 'a blank' : `"${wrong}"`} in the place of host:port`,
          wrong === '/' ? `write "${shown.slice(0, shown.indexOf('/'))}"` : 'write ";" between entries');
      }
    }
  },

  'entry-port'(lint) {
    for (const { node, raw, keyword, address } of lint.entries()) {
      const isProxy = keyword !== null && knownKeywords.has(keyword.toUpperCase()) &&
        keyword.toUpperCase() !== 'DIRECT';
      if (!isProxy || !address || address.includes(unknownText) || notInAddress.test(address)) continue;
      const port = /:(\d+)$/.exec(address)?.[1];
      if (port !== undefined && Number(port) >= 1 && Number(port) <= 65535) continue;
      lint.report(node, port === undefined ? `"${raw.trim()}" has no port`
        : `"${raw.trim()}" has no port from 1 to 65535`, `write "${raw.trim().replace(/:\d*$/, '')}:8080", ` +
        'with the port of the proxy');
    }
  },

  'direct-missing'(lint) {
    for (const answer of lint.answers()) {
      const keywords = answer.entries.map(({ keyword }) => keyword?.toUpperCase());
      if (keywords.length === 0 || keywords.includes(undefined) || keywords.includes('DIRECT')) continue;
      if (answer.text.includes(unknownText)) continue;
      if (answer.entries.some(({ address }) => notInAddress.test(address))) continue;
      lint.report(answer.node, `"${answer.text}" has no DIRECT behind its proxies`,
        `write "${answer.text.replace(/[;\s]+$/, '')}; DIRECT" if programs may connect directly`);
    }
  },

  'direct-first'(lint) {
    for (const answer of lint.answers()) {
      const at = answer.entries.findIndex(({ keyword }) => keyword?.toUpperCase() === 'DIRECT');
      if (at < 0 || at === answer.entries.length - 1) continue;
      const shown = answer.text.replaceAll(unknownText, '...');
      lint.report(answer.node, `"${shown}" has entries behind DIRECT, which are tried only if the ` +
        'connection without a proxy fails', 'put DIRECT last');
    }
  },

  'no-return'(lint) {
    const { tree } = lint;
    for (const fn of lint.answering()) {
      if (fn.body.type === 'BlockStatement' && fn.body.body.every(canComplete)) {
        lint.reportAt(lint.script.text[fn.end - 1] === '}' ? fn.end - 1 : fn.end,
          `a path through ${lint.nameOf(fn)} ends without a return`, 'return an answer at the end');
      }
    }
    if (!tree.entry) {
      lint.reportAt(0, 'the text shows no function FindProxyForURL, so the rules about answers, paths and cost ' +
        'find nothing', 'write function FindProxyForURL(url, host) { ... }', 'note');
      return;
    }
    for (const { node, text, entries } of lint.answers()) {
      if (entries.length > 0) continue;
      lint.report(node, `"${text}" is returned, which has no entry`, 'return "DIRECT", or a proxy', 'warning');
    }
    for (const { node, text } of lint.returned()) {
      if (text !== null) continue;
      const shown = node.type === 'ReturnStatement' ? 'nothing' : tree.script.sourceOf(node, 40);
      lint.report(node, `${shown} is returned, which is no text`, 'return a text, such as "DIRECT"');
    }
  },

  // Checks the script's answers for local hosts, if the argument has them.
  'local-to-proxy'(lint) {
    // The script had no name lookups when it gave these answers, so its answer after a lookup is
    // not known.
    if (!lint.tree.entry || lint.lookups.functionLooksUp(lint.tree.entry)) return;
    for (const [host, answer] of Object.entries(lint.options.answers ?? {})) {
      const first = piecesOf(answer)[0]?.keyword?.toUpperCase();
      if (first === undefined || first === 'DIRECT') continue;
      const from = lint.returned().filter(({ text }) => text === answer).at(-1)?.node ?? lint.tree.entry;
      lint.report(from, `the local host "${host}" is sent to "${answer}"`,
        'begin with if (isPlainHostName(host)) return "DIRECT";');
      return;
    }
  },
};

// Whether the daemon accepts an entry in this form.
function isTaken(raw) {
  const entry = raw.replace(/^[ \t]+/, '');
  return entry === 'DIRECT' || entry.startsWith('PROXY ') || entry.startsWith('SOCKS ');
}

// The entries of an answer: { raw, keyword, address }. keyword is null if it is known only when the
// script runs.
function piecesOf(text) {
  const pieces = [];
  for (const raw of text.split(';')) {
    const entry = raw.trim();
    if (entry === '') continue;
    const [, keyword, address] = /^(\S*)\s*(.*)$/s.exec(entry);
    pieces.push({
      raw, keyword: keyword.includes(unknownText) ? null : keyword, address: address.trim(),
    });
  }
  return pieces;
}
