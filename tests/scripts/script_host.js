// The classes from JScript, which passes numbers as VT_I4 or VT_R8, null as
// VT_NULL, undefined as VT_EMPTY and never by reference: calls by name, the
// value member, errors as exceptions with number and description.
// Row: class, Default (or the text of an average) first, member, arguments
// (none: a property read), then the result, or Default after a call without
// one, or [error, description].
var rows = [
  ["IntegerData", 20, "Add", [22], 42],
  ["LongData", 0, "Add", [2147483647], 2147483647],
  ["SingleData", 1, "Add", [0.25], 1.25],
  ["DoubleData", 0, "Add", [1 / 3], 1 / 3],
  ["BooleanData", 1, "Value", undefined, true],
  ["IntegerPercent", 0, "PercentDisplay", undefined, "100%"],
  ["SinglePercentData", 0, "AnotherSampleOccured", [], 1],
  ["DoublePercentData", 0, "Occured", [], 2],
  ["LongPercentData", 0, "Occured", [], 2],
  ["SingleAverage", "1.5, 2", "DataHighest", undefined, 2],
  ["IntegerAverage", "4,x", "DataAverage", undefined, [13]],
  ["TextConstants", undefined, "cstKarvoOnBlackjack", undefined, "Karvo on Blackjack"],
  ["InterfaceStack", undefined, "PushAndSet", [5], undefined],
  ["ValueStack.ValueStack", undefined, "PeekInteger", [], [5, "The value history holds no Integer"]]
];
function call(o, m, a) {
  if (a === undefined) return o[m];
  return a.length === 0 ? o[m]() : o[m](a[0]);
}
for (var i = 0; i < rows.length; i++) {
  var r = rows[i], what = r[0] + "." + r[2] + "(" + r[3] + ")";
  var o = new ActiveXObject(r[0].indexOf(".") < 0 ? "KARVO_Valmetra." + r[0] : r[0]);
  if (typeof r[1] === "string") o.HereIsAStringOfNumbers(r[1]); else if (r[1] !== undefined) o.Default = r[1];
  if (r[4] instanceof Array) { throws(function () { call(o, r[2], r[3]); }, r[4][0], r[4][1], what); continue; }
  var got = call(o, r[2], r[3]);
  same(got === undefined && r[4] !== undefined ? o.Default : got, r[4], what);
}

var a = new ActiveXObject("KARVO_Valmetra.IntegerData"), v = 9;
a.Value = 41;
same(a + 1, 42, "the object as a number reads its value member");
a.Swap(v);
same(a.Value + v, 18, "Swap takes the argument; the variable is passed by value");
finish("script_host.js");
