' The ValueStack component on its own, called by name as a script would:
' one history per type, Push/Pop/PushAndSet/Drop per type, the extras
' (Peek, counts, Clear, IsEmpty, Summary), errors of an empty history, and
' independent histories for independent objects.
Dim s, t, x, y, kinds, i

Set s = CreateObject("ValueStack.ValueStack")
Set t = CreateObject("ValueStack.ValueStack")
CheckEqual s.IsEmpty, True, "a new object is empty"
CheckEqual s.Summary, "Boolean 0, Double 0, Integer 0, Long 0, Single 0", "Summary of a new object"

' Every type: Pop and Drop on an empty history fail with error 5 and change
' nothing; Push then Pop gives the value back with the type's own vartype.
' kinds(i) = Array(type name, value, vartype)
kinds = Array(Array("Boolean", True, vbBoolean), Array("Double", 2.5, vbDouble), _
              Array("Integer", -7, vbInteger), Array("Long", 100000, vbLong), _
              Array("Single", 0.5, vbSingle))
For i = 0 To UBound(kinds)
  x = 77
  On Error Resume Next
  Select Case i
    Case 0: s.PopBoolean x
    Case 1: s.PopDouble x
    Case 2: s.PopInteger x
    Case 3: s.PopLong x
    Case 4: s.PopSingle x
  End Select
  CheckError 5, "The value history holds no " & kinds(i)(0), "ValueStack", "Pop" & kinds(i)(0) & " on empty"
  Select Case i
    Case 0: s.DropBoolean
    Case 1: s.DropDouble
    Case 2: s.DropInteger
    Case 3: s.DropLong
    Case 4: s.DropSingle
  End Select
  CheckError 5, "The value history holds no " & kinds(i)(0), "ValueStack", "Drop" & kinds(i)(0) & " on empty"
  On Error GoTo 0
  CheckEqual x, 77, "failed Pop" & kinds(i)(0) & " leaves the variable alone"

  x = kinds(i)(1)
  Select Case i
    Case 0: s.PushBoolean x: x = 0: s.PopBoolean x
    Case 1: s.PushDouble x: x = 0: s.PopDouble x
    Case 2: s.PushInteger x: x = 0: s.PopInteger x
    Case 3: s.PushLong x: x = 0: s.PopLong x
    Case 4: s.PushSingle x: x = 0: s.PopSingle x
  End Select
  CheckTyped x, kinds(i)(1), kinds(i)(2), "Push" & kinds(i)(0) & " then Pop" & kinds(i)(0)
Next
CheckEqual s.Count, 0, "all popped again"

' Histories are per type and last in, first out.
x = 1: s.PushInteger x
x = 2: s.PushInteger x
x = 3: s.PushLong x
CheckEqual s.IntegerCount, 2, "IntegerCount"
CheckEqual s.LongCount, 1, "LongCount"
CheckEqual s.Count, 3, "Count over all types"
CheckTyped s.PeekInteger, 2, vbInteger, "PeekInteger gives the newest"
CheckEqual s.IntegerCount, 2, "Peek removes nothing"
s.PopInteger x
CheckEqual x, 2, "newest first"
s.PopLong x
CheckEqual x, 3, "the Long history is its own"
s.PopInteger x
CheckEqual x, 1, "then the older Integer"

' PushAndSet records the target's value and stores the new one into it.
x = 10: y = 20
s.PushAndSetLong x, y
CheckEqual x, 20, "PushAndSet stores the new value into the target"
CheckEqual y, 20, "the set-to value is unchanged"
CheckTyped s.PeekLong, 10, vbLong, "PushAndSet recorded the old value"
s.DropLong
CheckEqual s.LongCount, 0, "DropLong removed it"

' A literal where a variable is expected is recorded as well.
s.PushSingle 1.25
CheckTyped s.PeekSingle, 1.25, vbSingle, "PushSingle of a literal"
s.PushDouble "3.5"
CheckEqual s.PeekDouble, 3.5, "text is converted"

' Values that do not fit the type fail before anything is recorded.
x = 70000
On Error Resume Next
s.PushInteger x
CheckError 6, "", "", "70000 is no Integer"
On Error GoTo 0
CheckEqual s.IntegerCount, 0, "nothing recorded"

' Two objects, two histories; Clear empties one of them.
x = 5: t.PushInteger x
CheckEqual s.IntegerCount, 0, "the other object's history is separate"
CheckEqual t.IntegerCount, 1, "t holds its own"
s.Clear
CheckEqual s.IsEmpty, True, "Clear empties everything"
CheckEqual t.Count, 1, "Clear of s leaves t alone"

' No value member.
On Error Resume Next
x = s
CheckError 438, "", "", "no value member"
On Error GoTo 0

Finish "valuestack.vbs"
