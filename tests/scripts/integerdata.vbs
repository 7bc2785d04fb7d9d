' requires: IntegerData
' IntegerData driven the way a script host drives it: calls by name, the
' value member, coercion of script arguments, errors through Err, the shared
' value history and the write-back of Swap.
Dim a, b, x, v

Set a = CreateObject("KARVO_Valmetra.IntegerData")
Set b = CreateObject("KARVO_Valmetra.IntegerData")

' A new object reads 0 everywhere, typed as Integer.
CheckTyped a.Value, 0, vbInteger, "new Value"
CheckTyped a.Default, 0, vbInteger, "new Default"
CheckTyped a.LowerLimit, 0, vbInteger, "new LowerLimit"
CheckTyped a.UpperLimit, 0, vbInteger, "new UpperLimit"
CheckTyped a.Limit, 0, vbInteger, "new Limit"

' The value member: reading the object itself reads Default.
a.Value = 41
x = a
CheckTyped x, 41, vbInteger, "x = obj reads the value member"
CheckEqual a + 1, 42, "the object in an expression"
a.Default = -7
CheckEqual a.Value, -7, "Default put writes Value"

' Calls by name, names in any case, statement and Call forms.
a.Value = 10
a.Add 5
CheckEqual a.Value, 15, "Add"
Call a.Subtract(20)
CheckEqual a.Value, -5, "Call Subtract"
a.multiply 3
CheckEqual a.Value, -15, "lower-case name"
CheckTyped a.IncrementAndGet(), -14, vbInteger, "IncrementAndGet result"
CheckEqual a.IsBetween(-20, -10), True, "IsBetween returns a true flag"
CheckEqual CInt(a.IsBetween(-10, -20)), -1, "IsBetween flag is -1"
CheckEqual a.IsEven(), True, "IsEven of -14"

' Arguments are coerced the way Automation coerces them.
a.Value = 1
a.Add "5"
CheckEqual a.Value, 6, "text argument ""5"""
a.Add CLng(100)
CheckEqual a.Value, 106, "Long argument"
a.Add 2.5
CheckEqual a.Value, 108, "2.5 rounds to even (2)"

' Limits and ModuloAdd: 10 + 5 leaves 13 - 5.
a.SetTheLimits 1, 13
a.Value = 10
a.ModuloAdd 5
CheckEqual a.Value, 8, "ModuloAdd wraps to UpperLimit - MaddValue"
a.Limit = 4
CheckEqual a.LowerLimit, 4, "Limit is LowerLimit"

' Property reads that change the object.
a.Value = 5
CheckEqual a.ValueBe4Increment, 5, "ValueBe4Increment"
CheckEqual a.ValueAfterIncrement, 7, "ValueAfterIncrement"

' Errors: number, description and source reach Err; the field is unchanged.
a.Value = 32767
On Error Resume Next
a.IncrementYourself
CheckError 6, "Overflow", "KARVO_Valmetra", "IncrementYourself at 32767"
x = a.ValueBe4Increment
CheckError 6, "Overflow", "KARVO_Valmetra", "ValueBe4Increment at 32767"
a.Add 1
CheckError 6, "Overflow", "KARVO_Valmetra", "Add 1 at 32767"
On Error GoTo 0
CheckEqual a.Value, 32767, "Value unchanged after Overflow"

a.Value = 7
On Error Resume Next
a.IDivide 0
CheckError 11, "Division by zero", "KARVO_Valmetra", "IDivide by 0"
a.Divide 0
CheckError 11, "Division by zero", "KARVO_Valmetra", "Divide by 0"
a.Value = 0
a.Divide 0
CheckError 6, "Overflow", "KARVO_Valmetra", "Divide 0 by 0 (invalid operation)"
a.Value = -32768
a.IDivide -1
CheckError 6, "Overflow", "KARVO_Valmetra", "IDivide -32768 by -1"
On Error GoTo 0
CheckEqual a.Value, -32768, "Value unchanged after the failed divisions"

' Failures of the dispatch layer: a text that is no number, a missing
' argument, a member that does not exist.
On Error Resume Next
a.Add "five"
CheckError 13, "", "", "non-numeric text argument"
a.Add
CheckError 450, "", "", "missing argument"
a.NoSuchMember 1
CheckError 438, "", "", "unknown member"
a.Add 40000
CheckError 6, "", "", "argument beyond the Integer range"
On Error GoTo 0
CheckEqual a.Value, -32768, "Value unchanged after dispatch failures"

' The value history is one per thread: empty at first, shared by objects.
On Error Resume Next
a.Pop
CheckError 5, "The value history holds no Integer", "ValueStack", "Pop on an empty history"
a.Drop
CheckError 5, "The value history holds no Integer", "ValueStack", "Drop on an empty history"
On Error GoTo 0
CheckEqual a.Value, -32768, "failed Pop changes nothing"

a.Value = 3
a.Push
a.Value = 11
a.Push
b.Pop
CheckEqual b.Value, 11, "Pop on another object gets the newest Push"
b.Pop
CheckEqual b.Value, 3, "then the older one"
a.Value = 1
a.PushAndSet 4
CheckEqual a.Value, 4, "PushAndSet stores the new value"
b.Pop
CheckEqual b.Value, 1, "PushAndSet recorded the old value"
b.Value = 9
b.Push
b.Drop
On Error Resume Next
b.Pop
CheckError 5, "", "ValueStack", "Drop discarded the last entry"
On Error GoTo 0

' Swap writes the caller's variable back.
a.Value = 2
v = 9
a.Swap v
CheckEqual a.Value, 9, "Swap takes the variable's value"
CheckEqual v, 2, "Swap writes the old Value into the variable"
v = CLng(-4)
a.Swap v
CheckEqual a.Value, -4, "Swap with a Long variable"
CheckEqual v, 9, "Swap writes back into a Long variable"
a.Swap 5
CheckEqual a.Value, 5, "Swap with a literal"

Finish "integerdata.vbs"
