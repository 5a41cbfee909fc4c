// Shows the value of a call with its type, or the thrown exception, as one line of ASCII text.
var show = (function () {
  var text = String, typeName = Object.prototype.toString;
  function quoted(string) {
    var out = '"';
    for (var i = 0; i < string.length; i++) {
      var unit = string.charCodeAt(i);
      out += unit < 32 || unit > 126 || unit === 34 || unit === 92
        ? '\\u' + ('000' + unit.toString(16)).slice(-4) : string.charAt(i);
    }
    return out + '"';
  }
  function value(it) {
    if (typeof it === 'string') return 'string ' + quoted(it);
    if (it === null) return 'null';
    if (it === undefined) return 'undefined';
    if (typeof it === 'number') return 'number ' + (it === 0 && 1 / it < 0 ? '-0' : it);
    if (typeof it === 'object' || typeof it === 'function') return 'object ' + typeName.call(it);
    return typeof it + ' ' + text(it);
  }
  return function (call) {
    try {
      return value(call());
    } catch (error) {
      return 'throws ' + (error instanceof Error ? error.name : value(error));
    }
  };
})();
