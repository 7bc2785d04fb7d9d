// requires: IntegerData LongData InterfaceStack
// The classes from JScript: calls by name, the value member as a number,
// errors as exceptions (number & 0xFFFF, description) leaving the value
// alone, the shared history, no write-back, methods without a result.
var a = new ActiveXObject("KARVO_Valmetra.IntegerData");
var b = new ActiveXObject("KARVO_Valmetra.IntegerData");
a.Value = 20;
a.Add(22);
checkEqual(a + 0, 42, "Add by name; the object as a number reads the value member");
checkEqual(a.IncrementAndGet(), 43, "IncrementAndGet");
checkEqual(a.IsOdd(), true, "IsOdd gives a true flag");
a.Add("7");
checkEqual(a.Value, 50, "text argument is coerced");

// [class, value before, member, argument, error number, description]; every row leaves Value
// unchanged.
var rows = [
  ["IntegerData", 32767, "IncrementYourself", null, 6, "Overflow"],
  ["IntegerData", -32768, "DecrementYourself", null, 6, "Overflow"],
  ["IntegerData", 16384, "DoubleYourself", null, 6, "Overflow"],
  ["IntegerData", 7, "IDivide", 0, 11, "Division by zero"],
  ["IntegerData", -32768, "IDivide", -1, 6, "Overflow"],
  ["IntegerData", 2, "RaiseYourself", 15, 6, "Overflow"],
  ["LongData", 2147483647, "Add", 1, 6, "Overflow"],
  ["LongData", -2147483647, "Subtract", 2, 6, "Overflow"],
  ["IntegerData", 3, "NoSuchMember", 1, 438, ""]
];
for (var i = 0; i < rows.length; i++) {
  var r = rows[i], o = new ActiveXObject("KARVO_Valmetra." + r[0]);
  o.Value = r[1];
  checkThrows(function () { r[3] === null ? o[r[2]]() : o[r[2]](r[3]); }, r[4], r[5], r[0] + "." + r[2] + " at " + r[1]);
  checkEqual(o.Value, r[1], r[0] + "." + r[2] + " leaves Value unchanged");
}
try { a.Value = 32767; a.Increment(); } catch (e) { checkEqual(e.number >>> 0, 0x800A0006, "the full error number"); }

checkThrows(function () { b.Pop(); }, 5, "The value history holds no Integer", "Pop on an empty history");
a.Value = 123;
a.Push();
b.Pop();
checkEqual(b.Value, 123, "Pop on b receives a's Push");
var v = 9;
a.Swap(v);
checkEqual(a.Value + v, 18, "Swap takes the argument; a JScript variable is passed by value");

var s = new ActiveXObject("KARVO_Valmetra.InterfaceStack");
var results = [s.Drop(), s.Pop(), s.Push(), s.PushAndSet(5), s.PushAndSet("x"), s.PushAndSet(null), s.PushAndSet(s), s.Snag()];
for (i = 0; i < results.length; i++) checkEqual(results[i], undefined, "InterfaceStack operation " + i + " has no result");
finish("script_host.js");
