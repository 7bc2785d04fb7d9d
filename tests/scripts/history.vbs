' The value history from VBScript: one per thread and per type, shared by
' every object and by the global instances GetObject binds; then the
' ValueStack component by name, its ByRef parameters written into variables.
Dim r, a, b, g, v, x, y, s, t, i

' Row: class, value, its vartype, the type's name. Each row leaves one entry
' behind, so an empty history of the next type proves the types apart.
For Each r In Array(Array("IntegerData", -7, vbInteger, "Integer"), Array("LongData", 100000, vbLong, "Long"), _
    Array("SingleData", 0.5, vbSingle, "Single"), Array("DoubleData", 1 / 3, vbDouble, "Double"))
  Set a = Make(r(0)): Set b = Make(r(0))
  On Error Resume Next
  b.Pop: Fails 5, "The value history holds no " & r(3), "ValueStack", r(0) & ".Pop on an empty history"
  On Error GoTo 0
  a.Value = r(1): a.Push: a.Value = 2: a.PushAndSet 1
  Same a.Value, 1, r(2), r(0) & ".PushAndSet stores its argument"
  b.Pop: Same b.Value, 2, r(2), r(0) & ".Pop on another object: the newest, recorded by PushAndSet"
  b.Drop
  On Error Resume Next
  b.Pop: Fails 5, "", "ValueStack", r(0) & ".Drop removed the older entry"
  On Error GoTo 0
  Same b.Value, 2, r(2), r(0) & ".Pop that failed kept Value"
  a.Value = r(1): a.Push: a.Value = 0: a.Pop
  Same a.Value, r(1), r(2), r(0) & " value through the history unchanged"
  a.Push
Next

' BooleanData: Pop returns the flag; PushAndSet records the caller's variable,
' then writes the new flag into it; Drop does nothing; Value plays no part.
Set b = Make("BooleanData")
On Error Resume Next
x = b.Pop(): Fails 5, "The value history holds no Boolean", "ValueStack", "BooleanData.Pop on an empty history"
On Error GoTo 0
b.Push True
v = 1: b.PushAndSet v, False
Same v, False, vbBoolean, "BooleanData.PushAndSet writes the flag into the variable"
Same b.Pop(), True, vbBoolean, "BooleanData.PushAndSet recorded the variable's old flag"
b.Drop
Same b.Pop(), True, vbBoolean, "BooleanData.Drop left the history alone"
Same b.Value, False, vbBoolean, "BooleanData.Value untouched"

' Binding a class by its identifier reaches the thread's global instance, the
' same every time, sharing the history; CreateObject makes other objects; a
' creatable-only class has none.
Set g = GetObject("clsid:4275b69a-c710-4e47-b603-556e479b2382")
g.Value = 42
Same GetObject("clsid:4275b69a-c710-4e47-b603-556e479b2382").Value, 42, vbInteger, "IntegerData's global instance again"
Same GetObject("clsid:65fe8444-c51f-4d1f-bf81-f68b5cda74ab").Value, 0, vbLong, "LongData's global instance is its own"
Set a = Make("IntegerData")
Same a.Value, 0, vbInteger, "CreateObject makes another object"
g.Push: a.Pop
Same a.Value, 42, vbInteger, "the global instance shares the history"
On Error Resume Next
Set x = GetObject("clsid:ee5f2f41-ec1b-4c07-8cd9-6986427dbfda")
Check Err.Number <> 0, "InterfaceStack has no global instance"
On Error GoTo 0

' ValueStack: per type, a value pushed from a variable comes back into an
' Empty variable, which takes the type's vartype.
Set s = CreateObject("ValueStack.ValueStack")
Same s.Summary, "Boolean 0, Double 0, Integer 0, Long 0, Single 0", vbString, "a new ValueStack is empty"
v = Array(True, 2.5, -7, 100000, CSng(0.5)): r = Array(vbBoolean, vbDouble, vbInteger, vbLong, vbSingle)
For i = 0 To 4
  x = v(i): y = Empty
  Select Case i
    Case 0: s.PushBoolean x: s.PopBoolean y
    Case 1: s.PushDouble x: s.PopDouble y
    Case 2: s.PushInteger x: s.PopInteger y
    Case 3: s.PushLong x: s.PopLong y
    Case 4: s.PushSingle x: s.PopSingle y
  End Select
  Same y, x, r(i), "ValueStack Push then Pop of " & Show(x)
Next
Set t = CreateObject("ValueStack.ValueStack")
y = 77
On Error Resume Next
s.PopLong y: Fails 5, "The value history holds no Long", "ValueStack", "PopLong on an empty history"
x = 70000: s.PushInteger x: Fails 6, "", "", "PushInteger of 70000"
On Error GoTo 0
Same y, 77, 0, "the failed PopLong left the variable"
x = 10: y = 20: s.PushAndSetLong x, y
Same x, 20, vbLong, "PushAndSetLong stores into the target"
Same s.PeekLong, 10, vbLong, "PushAndSetLong recorded the old value"
x = 5: t.PushInteger x
Same s.Count & " " & t.Count, "1 1", 0, "two objects, two histories"
s.Clear
Same s.IsEmpty, True, vbBoolean, "Clear"
Same t.Count, 1, vbLong, "Clear of one object leaves the other"

Finish "history.vbs"
