' requires: LongData SingleData DoubleData BooleanData IntegerData
' The other value classes from a script host: value members, typed results,
' errors, and the one value history of the thread shared by all of them,
' one history per type, including BooleanData's write-back through the
' history into the caller's variable.
Dim l, l2, s, d, b, i, x, v

Set l = CreateObject("KARVO_Valmetra.LongData")
Set l2 = CreateObject("KARVO_Valmetra.LongData")
Set s = CreateObject("KARVO_Valmetra.SingleData")
Set d = CreateObject("KARVO_Valmetra.DoubleData")
Set b = CreateObject("KARVO_Valmetra.BooleanData")
Set i = CreateObject("KARVO_Valmetra.IntegerData")

' Value members and result types.
l.Value = 100000
x = l
CheckTyped x, 100000, vbLong, "LongData value member"
s.Value = 0.5
CheckTyped s.Value, 0.5, vbSingle, "SingleData Value is a Single"
x = s
CheckTyped x, 0.5, vbSingle, "SingleData value member"
d.Value = 0.1
x = d
CheckTyped x, 0.1, vbDouble, "DoubleData value member"
CheckTyped b.Value, False, vbBoolean, "new BooleanData reads false"
b.Yes
CheckEqual CInt(b.Value), -1, "Yes stores -1"
On Error Resume Next
x = b
CheckError 438, "", "", "BooleanData has no value member"
On Error GoTo 0

' Errors of each class reach Err with the library as source.
l.Value = 2147483647
On Error Resume Next
l.IncrementYourself
CheckError 6, "Overflow", "KARVO_Valmetra", "LongData IncrementYourself at the top"
l.Add "x"
CheckError 13, "", "", "LongData Add of a non-number"
s.Value = 1
s.Divide 0
CheckError 11, "Division by zero", "KARVO_Valmetra", "SingleData Divide by 0"
d.Value = 1E+308
d.Multiply 10
CheckError 6, "Overflow", "KARVO_Valmetra", "DoubleData overflow"
On Error GoTo 0
CheckEqual l.Value, 2147483647, "LongData unchanged after Overflow"

' One history per type, shared by all objects of the thread: an Integer
' pushed is not there for a LongData Pop.
i.Value = 7
i.Push
l.Value = 70000
l.Push
l.Value = 0
On Error Resume Next
s.Pop
CheckError 5, "The value history holds no Single", "ValueStack", "no Single was pushed"
d.Drop
CheckError 5, "The value history holds no Double", "ValueStack", "no Double was pushed"
On Error GoTo 0
l2.Pop
CheckEqual l2.Value, 70000, "LongData Pop on another object"
On Error Resume Next
l2.Pop
CheckError 5, "The value history holds no Long", "ValueStack", "the Integer is not a Long"
On Error GoTo 0
i.Value = 0
i.Pop
CheckEqual i.Value, 7, "the Integer is still there"

s.Value = 1.5
s.PushAndSet 2.25
CheckEqual s.Value, 2.25, "SingleData PushAndSet"
s.Pop
CheckTyped s.Value, 1.5, vbSingle, "SingleData Pop"
d.Value = 1 / 3
d.Push
d.Value = 0
d.Pop
CheckEqual d.Value, 1 / 3, "DoubleData history keeps every bit"

' BooleanData: Push and Pop leave Value alone; PushAndSet writes the new
' flag into the caller's variable through the history component.
b.No
b.Push True
CheckEqual b.Value, False, "Push leaves Value"
CheckTyped b.Pop(), True, vbBoolean, "Pop returns the flag"
CheckEqual b.Value, False, "Pop leaves Value"
v = True
b.PushAndSet v, False
CheckEqual v, False, "PushAndSet sets the caller's variable"
CheckEqual b.Value, False, "PushAndSet leaves Value"
CheckEqual b.Pop(), True, "PushAndSet recorded the variable's old flag"
On Error Resume Next
x = b.Pop()
CheckError 5, "The value history holds no Boolean", "ValueStack", "Boolean history empty"
b.Drop
CheckError 0, "", "", "BooleanData Drop does not touch the history"
On Error GoTo 0

Finish "values.vbs"
