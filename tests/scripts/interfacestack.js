// requires: InterfaceStack
var s = new ActiveXObject("KARVO_Valmetra.InterfaceStack");
var results = [s.Drop(), s.Pop(), s.Push(), s.PushAndSet(5), s.PushAndSet("x"),
               s.PushAndSet(null), s.PushAndSet(s), s.Snag()];
for (var i = 0; i < results.length; i++)
  checkEqual(results[i], undefined, "operation " + i + " has no result");
checkThrows(function () { s.Snag2(); }, 438, "", "unknown member");
finish("interfacestack.js");
