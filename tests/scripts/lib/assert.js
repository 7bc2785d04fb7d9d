// Joined in front of each JScript test by tests/windows/run.sh. finish(name)
// prints "PASS <name>" only when every check held.
var g_checks = 0, g_failures = 0;
function check(ok, what) {
  g_checks++;
  if (!ok) { g_failures++; WScript.Echo("FAIL: " + what); }
}
function same(actual, expected, what) {
  check(actual === expected, what + ": got " + actual + " (" + typeof actual + "), expected " + expected);
}
// fn must throw the library's error `number` (0x800A0000 + number), with `description` unless that is "".
function throws(fn, number, description, what) {
  var want = (0x800A0000 + number) >>> 0;
  try { fn(); } catch (e) {
    return check((e.number >>> 0) === want && (!description || e.description === description),
                 what + ": error 0x" + (e.number >>> 0).toString(16) + " \"" + e.description + "\", expected 0x" + want.toString(16));
  }
  check(false, what + ": no error, expected 0x" + want.toString(16));
}
function finish(name) {
  WScript.Echo(g_failures === 0 && g_checks > 0 ? "PASS " + name + ": " + g_checks + " checks"
               : "FAIL " + name + ": " + g_failures + " of " + g_checks + " checks failed");
}
