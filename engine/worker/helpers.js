// The helpers of PAC scripts that are written in JavaScript, for arguments of any kind.
//
// Scripts rely on all details of the published helpers: the result of an object's toString(), the
// order in which arguments are read, the effect of a fourth argument. In this file, JavaScript
// itself does every conversion. script_helpers.cpp handles the simple cases of the most used
// helpers in C++, and calls these functions for all other cases.
//
// If this file uses the name of another helper, the name means the script's global. So if a script
// defines its own dnsResolve, wdays or Date, the helpers use that definition.
({
  dnsDomainIs(host, domain) {
    return host.length >= domain.length && host.substring(host.length - domain.length) == domain;
  },

  dnsDomainLevels(host) {
    return host.split('.').length - 1;
  },

  localHostOrDomainIs(host, hostdom) {
    return host == hostdom || hostdom.lastIndexOf(host + '.', 0) == 0;
  },

  isValidIpAddress(text) {
    const fields = /^(\d{1,3})\.(\d{1,3})\.(\d{1,3})\.(\d{1,3})$/.exec(text);
    return fields !== null && fields.slice(1).every((field) => field <= 255);
  },

  convert_addr(text) {
    const fields = text.split('.');
    let number = 0;
    for (let i = 0; i < 4; i++) number = (number << 8) | (fields[i] & 0xff);
    return number;
  },

  isInNet(host, pattern, mask) {
    if (!isValidIpAddress(pattern) || !isValidIpAddress(mask)) return false;
    const address = isValidIpAddress(host) ? host : dnsResolve(host);
    if (address == null) return false;
    // Scripts can see the order of these conversions.
    const differing = convert_addr(address) ^ convert_addr(pattern);
    return (differing & convert_addr(mask)) == 0;
  },

  isResolvable(host) {
    return dnsResolve(host) != null;
  },

  isResolvableEx(host) {
    return dnsResolveEx(host) != '';
  },

  shExpMatch(text, expression) {
    const source = expression.replace(/\./g, '\\.').replace(/\*/g, '.*').replace(/\?/g, '.');
    return new RegExp('^' + source + '$').test(text);
  },

  weekdayRange() {
    if (arguments.length == 0) return false;
    const now = new Date();
    const { count, gmt } = this.withoutZone(arguments);
    const first = this.numberOf(wdays, arguments[0]);
    const last = count == 2 ? this.numberOf(wdays, arguments[1]) : first;
    if (first == -1 || last == -1) return false;
    return this.isWithin(first, gmt ? now.getUTCDay() : now.getDay(), last);
  },

  dateRange() {
    if (arguments.length == 0) return false;
    const now = new Date();
    const { count, gmt } = this.withoutZone(arguments);
    if (count == 1) return this.isToday(now, gmt, arguments[0]);
    const year = now.getFullYear();
    const first = new Date(year, 0, 1, 0, 0, 0);
    const last = new Date(year, 11, 31, 23, 59, 59);
    let beginsWithDay = false;
    for (let i = 0; i < count; i++) {
      const isFirst = i < count >> 1;
      const bound = isFirst ? first : last;
      const number = parseInt(arguments[i]);
      if (isNaN(number)) {
        this.set(bound, 'Month', this.numberOf(months, arguments[i]));
      } else if (number >= 32) {
        this.set(bound, 'FullYear', number);
      } else {
        this.set(bound, 'Date', number);
        if (isFirst) beginsWithDay = true;
      }
    }
    // For dateRange(day, day) and dateRange(day, month), both days are in the current month.
    if (beginsWithDay && count == 2) {
      this.set(first, 'Month', now.getMonth());
      this.set(last, 'Month', now.getMonth());
    }
    if (gmt) this.shiftToGmt(now);
    return this.isWithin(first, now, last);
  },

  timeRange() {
    if (arguments.length == 0) return false;
    const now = new Date();
    const { count, gmt } = this.withoutZone(arguments);
    const hour = gmt ? now.getUTCHours() : now.getHours();
    if (count == 1) return hour == arguments[0];
    if (count == 2) return arguments[0] <= hour && hour <= arguments[1];
    if (count != 4 && count != 6) throw 'timeRange: bad number of arguments';
    const first = new Date();
    const last = new Date();
    const half = count / 2;
    if (half == 3) {
      this.set(first, 'Seconds', arguments[2]);
      this.set(last, 'Seconds', arguments[5]);
    }
    this.set(first, 'Hours', arguments[0]);
    this.set(first, 'Minutes', arguments[1]);
    this.set(last, 'Hours', arguments[half]);
    this.set(last, 'Minutes', arguments[half + 1]);
    if (half == 2) this.set(last, 'Seconds', 59);
    if (gmt) this.shiftToGmt(now);
    return this.isWithin(first, now, last);
  },

  // A last argument of "GMT" is not counted.
  withoutZone(given) {
    const gmt = given[given.length - 1] == 'GMT';
    return { count: gmt ? given.length - 1 : given.length, gmt };
  },

  numberOf(table, name) {
    return name in table ? table[name] : -1;
  },

  isToday(now, gmt, part) {
    const number = parseInt(part);
    if (isNaN(number)) {
      return (gmt ? now.getUTCMonth() : now.getMonth()) == this.numberOf(months, part);
    }
    if (number < 32) return (gmt ? now.getUTCDate() : now.getDate()) == number;
    return (gmt ? now.getUTCFullYear() : now.getFullYear()) == number;
  },

  // If the end of a range is before its start, the range wraps around.
  isWithin(first, value, last) {
    return first <= last ? first <= value && value <= last : last >= value || value >= first;
  },

  // Sets one part after the other, as browsers do, because a new value of one part can change the
  // following parts.
  shiftToGmt(moment) {
    for (const part of ['FullYear', 'Month', 'Date', 'Hours', 'Minutes', 'Seconds']) {
      this.set(moment, part, moment['getUTC' + part]());
    }
  },

  // Sets one part of a date, like the engine's own setter for this part. The engine's setters look
  // up the zone's offset at the wrong moment. So for some hours around each change of summer time,
  // their result is wrong by an hour.
  set(moment, part, value) {
    const minute = 60000;
    const day = 24 * 60 * minute;
    const offsetAt = (time) => {
      moment.setTime(time);
      return moment.getTimezoneOffset() * minute;
    };
    const shown = new moment.constructor(moment - moment.getTimezoneOffset() * minute);
    // The setter's result is used instead of the date: if the date should become invalid, the
    // engine does not change it.
    const wall = shown['setUTC' + part](value);
    const before = offsetAt(wall - day);
    const after = offsetAt(wall + day);
    // If the clocks show a time twice, the first one counts. If they skip a time, the time after
    // the change counts.
    const isBefore = offsetAt(wall + before) == before || offsetAt(wall + after) != after;
    moment.setTime(wall + (isBefore ? before : after));
  },
})
