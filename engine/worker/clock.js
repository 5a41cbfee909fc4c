// Replaces the clock of scripts by `seconds`, a function that returns the time since 1970.
(function (seconds) {
  const RealDate = Date;
  const now = () => seconds() * 1000;
  const StoppedDate = new Proxy(RealDate, {
    construct(target, given, newTarget) {
      return Reflect.construct(target, given.length == 0 ? [now()] : given, newTarget);
    },
    apply() {
      return new RealDate(now()).toString();
    },
  });
  RealDate.now = now;
  RealDate.prototype.constructor = StoppedDate;
  globalThis.Date = StoppedDate;
})
