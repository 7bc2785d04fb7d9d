// Assertions that tests/windows/run.sh joins in front of each JScript test.
// finish(name) prints one "PASS <name>" or "FAIL <name>" line and sets the exit code.
var g_checks = 0, g_failures = 0;
function check(ok, what) {
  g_checks++;
  if (!ok) { g_failures++; WScript.Echo("FAIL: " + what); }
}
function checkEqual(actual, expected, what) {
  check(actual === expected, what + ": got " + actual + " (" + typeof actual + "), expected " + expected);
}
// fn must throw the library error `number` (low 16 bits of e.number) with `description` ("" for any).
function checkThrows(fn, number, description, what) {
  try { fn(); } catch (e) {
    return check((e.number & 0xFFFF) === number && (description === "" || e.description === description),
                 what + ": error 0x" + (e.number >>> 0).toString(16) + " \"" + e.description + "\", expected " + number);
  }
  check(false, what + ": no error, expected " + number);
}
function finish(name) {
  var ok = g_failures === 0 && g_checks > 0;
  WScript.Echo((ok ? "PASS " : "FAIL ") + name + ": " + (ok ? g_checks + " checks" : g_failures + " of " + g_checks + " checks failed"));
  WScript.Quit(ok ? 0 : 1);
}
