// Regular expressions with the v flag: sets of strings, nested classes, differences, properties. No
// tested release fails here; the original QuickJS of 2025 does not support the flag.
function FindProxyForURL(url, host) {
  var tried = 0;
  ['[\\q{abc|d|}]', '[[a-z]--[aeiou]]+', '[\\p{L}&&[a-f]]', '[^\\q{a}]', '[\\q{ab|abc}--\\q{ab}]',
   '\\p{RGI_Emoji}', '[\\p{RGI_Emoji}--\\q{x}]', '[[[[[a]]]]]', '[a--[b--[c--[d--e]]]]', '[\\q{' + 'a|'.repeat(50) + '}]',
   '(?<n>[[a]&&[a]])\\k<n>', '[a-z&&[^b]]*?$', '[', '[--]', '[a&&&b]', '(?i:[\\q{K}])', '['.repeat(300)].forEach(function (source) {
    ['v', 'vi', 'vg', 'vy', 'vs'].forEach(function (flags) {
      try {
        var regexp = new RegExp(source, flags);
        tried += ['abc', 'K', '\ud83d\ude00', 'a'.repeat(100), ''].filter(function (text) {
          return regexp.test(text) || text.replace(regexp, '$&$`').length < 0;
        }).length;
      } catch (e) { if (!(e instanceof SyntaxError)) throw e; }
    });
  });
  return tried > 0 ? 'ok' : 'nothing matched';
}
