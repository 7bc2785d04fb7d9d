' requires: InterfaceStack
' InterfaceStack: creatable, every operation succeeds and changes nothing;
' no value member. Also exercises the dispatch layer's argument handling.
Dim s, t, x

Set s = CreateObject("KARVO_Valmetra.InterfaceStack")
Set t = CreateObject("KARVO_Valmetra.InterfaceStack")
Check Not (s Is t), "each CreateObject gives a new object"

s.Drop
s.Pop
s.Push
s.Snag
Call s.PushAndSet(5)
s.PushAndSet "text"
s.PushAndSet Empty
s.PushAndSet Null
s.PushAndSet 1.5
s.PushAndSet t
s.PushAndSet Array(1, "two", 3.0)
x = 7
s.PushAndSet x
CheckEqual x, 7, "PushAndSet does not write its argument"
s.pushandset 1
s.SNAG
Check True, "every operation succeeded"

On Error Resume Next
x = s
CheckError 438, "", "", "no value member"
s.PushAndSet
CheckError 450, "", "", "PushAndSet without its argument"
s.Drop 1
CheckError 450, "", "", "Drop with an argument"
s.Peek
CheckError 438, "", "", "unknown member"
On Error GoTo 0

Finish "interfacestack.vbs"
