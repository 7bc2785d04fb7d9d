// Assertions shared by the JScript tests; tests/windows/run.sh joins this
// file in front of each test script. A test ends with finish(name), which
// prints one "PASS <name>" or "FAIL <name>" line and sets the exit code.
var g_checks = 0, g_failures = 0;

function fail(what) {
  g_failures++;
  WScript.Echo("FAIL: " + what);
}

function check(condition, what) {
  g_checks++;
  if (!condition) fail(what);
}

function checkEqual(actual, expected, what) {
  g_checks++;
  if (actual !== expected)
    fail(what + ": got " + actual + " (" + typeof actual + "), expected " + expected);
}

// Runs fn, which must throw the library error `number` (the low 16 bits of
// e.number) with the given description ("" for any).
function checkThrows(fn, number, description, what) {
  g_checks++;
  try {
    fn();
  } catch (e) {
    var n = e.number & 0xFFFF;
    if (n !== number)
      fail(what + ": error " + n + " (0x" + (e.number >>> 0).toString(16) + ") \"" +
           e.description + "\", expected " + number);
    else if (description !== "" && e.description !== description)
      fail(what + ": description \"" + e.description + "\", expected \"" + description + "\"");
    return;
  }
  fail(what + ": no error, expected " + number);
}

function finish(name) {
  if (g_failures === 0 && g_checks > 0) {
    WScript.Echo("PASS " + name + ": " + g_checks + " checks");
    WScript.Quit(0);
  }
  WScript.Echo("FAIL " + name + ": " + g_failures + " of " + g_checks + " checks failed");
  WScript.Quit(1);
}
