// requires: IntegerData
// IntegerData from JScript: calls by name, the value member in arithmetic,
// errors as exceptions (number & 0xFFFF, description), the shared history.
var a = new ActiveXObject("KARVO_Valmetra.IntegerData");
var b = new ActiveXObject("KARVO_Valmetra.IntegerData");

checkEqual(a.Value, 0, "new Value");
a.Value = 20;
a.Add(22);
checkEqual(a.Value, 42, "Add by name");
checkEqual(a + 0, 42, "the object as a number reads the value member");
checkEqual(a.IncrementAndGet(), 43, "IncrementAndGet");
checkEqual(a.IsOdd(), true, "IsOdd gives a true flag");
a.Add("7");
checkEqual(a.Value, 50, "text argument is coerced");

var cases = [
  // [setup value, call, number, description]
  [32767, function () { a.IncrementYourself(); }, 6, "Overflow"],
  [-32768, function () { a.DecrementYourself(); }, 6, "Overflow"],
  [16384, function () { a.DoubleYourself(); }, 6, "Overflow"],
  [7, function () { a.IDivide(0); }, 11, "Division by zero"],
  [-32768, function () { a.IDivide(-1); }, 6, "Overflow"],
  [2, function () { a.RaiseYourself(15); }, 6, "Overflow"]
];
for (var i = 0; i < cases.length; i++) {
  a.Value = cases[i][0];
  checkThrows(cases[i][1], cases[i][2], cases[i][3], "case " + i);
  checkEqual(a.Value, cases[i][0], "case " + i + " leaves Value unchanged");
}

// The source reaches the exception object through the error information.
try {
  a.Value = 32767;
  a.Increment();
  fail("Increment at 32767 did not throw");
} catch (e) {
  checkEqual(e.number >>> 0, 0x800A0006, "full error number");
  checkEqual(e.description, "Overflow", "description");
}

// History across two objects; Pop on empty passes the service's error on.
checkThrows(function () { b.Pop(); }, 5, "The value history holds no Integer", "Pop on empty");
a.Value = 123;
a.Push();
a.Value = 0;
b.Pop();
checkEqual(b.Value, 123, "Pop on b receives a's Push");

// No write-back in JScript: Swap with a number just takes it.
a.Value = 2;
var v = 9;
a.Swap(v);
checkEqual(a.Value, 9, "Swap takes the argument");
checkEqual(v, 9, "a JScript variable is passed by value");

checkThrows(function () { a.NoSuchMember(); }, 438, "", "unknown member");

finish("integerdata.js");
