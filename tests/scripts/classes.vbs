' Every class from VBScript, called by name: the value member, script values
' converted into each declared parameter type, typed results, errors through
' Err, and ByRef parameters written back into the caller's variables.
Dim r, o, a, v, x, s

' Reading the object itself reaches its value member (Default; on a percent
' counter assigning it records one occurrence), of the row's vartype; a class
' without one answers 438.
For Each r In Array(Array("IntegerData", 7, vbInteger), Array("LongData", 7, vbLong), Array("SingleData", 7, vbSingle), _
    Array("DoubleData", 7, vbDouble), Array("IntegerPercent", 1, vbInteger), Array("SinglePercentData", 1, vbSingle), _
    Array("DoublePercentData", 1, vbDouble), Array("LongPercentData", 0, 0), Array("BooleanData", 0, 0), _
    Array("SingleAverage", 0, 0), Array("IntegerAverage", 0, 0), Array("TextConstants", 0, 0), _
    Array("InterfaceStack", 0, 0), Array("ValueStack.ValueStack", 0, 0))
  Set o = Make(r(0))
  On Error Resume Next
  If r(2) Then o.Default = 7
  x = Empty: x = o
  If r(2) Then Fails 0, "", "", r(0) & " read as itself": Same x, r(1), r(2), r(0) & " read as itself" _
    Else Fails 438, "", "", r(0) & " has no value member"
  On Error GoTo 0
Next

' Script values into each declared type, alike by value (the Value put) and as
' a variable passed by reference (Add, which must not write it). Row: class,
' argument, Value after and its vartype, or (vartype 0) the error number.
For Each r In Array(Array("IntegerData", "5", 5, vbInteger), Array("IntegerData", 2.5, 2, vbInteger), _
    Array("IntegerData", 3.5, 4, vbInteger), Array("IntegerData", True, -1, vbInteger), Array("IntegerData", Empty, 0, vbInteger), _
    Array("IntegerData", CLng(-300), -300, vbInteger), Array("IntegerData", 40000, 6, 0), Array("IntegerData", "five", 13, 0), _
    Array("IntegerData", Null, 13, 0), Array("LongData", "100000", 100000, vbLong), Array("LongData", CSng(1.5), 2, vbLong), _
    Array("LongData", 2147483648, 6, 0), Array("SingleData", "0.5", 0.5, vbSingle), Array("SingleData", 3, 3, vbSingle), _
    Array("SingleData", 1E+39, 6, 0), Array("DoubleData", "2.5E+10", 2.5E+10, vbDouble), Array("DoubleData", True, -1, vbDouble), _
    Array("BooleanData", 1, True, vbBoolean), Array("BooleanData", "0", False, vbBoolean), Array("BooleanData", Null, 13, 0))
  Set o = Make(r(0))
  For Each v In Array("put", "Add")
    If v = "put" Or r(0) <> "BooleanData" Then
      a = r(1)
      On Error Resume Next
      If v = "put" Then o.Value = a Else o.Value = 0: o.Add a
      x = r(0) & " " & v & " " & Show(r(1))
      If r(3) Then Fails 0, "", "", x: Same o.Value, r(2), r(3), x Else Fails r(2), "", "", x
      On Error GoTo 0
      Check VarType(a) = VarType(r(1)), r(0) & " " & v & " leaves the argument " & Show(r(1))
    End If
  Next
Next
' Into a text parameter.
Set o = Make("SingleAverage")
For Each r In Array(Array(5, "5"), Array(2.5, "2.5"), Array("4,5", "4, 5"), Array(Empty, ""))
  o.HereIsAStringOfNumbers r(0)
  Same o.GiveMeYourNumbers, r(1), vbString, "SingleAverage text from " & Show(r(0))
Next
' Into a Variant parameter: anything, an array included.
Set s = Make("InterfaceStack")
For Each a In Array("text", Empty, Null, 1.5, o, True, Array(1, "two", 3.0))
  On Error Resume Next
  s.PushAndSet a: Fails 0, "", "", "InterfaceStack.PushAndSet " & Show(a)
  On Error GoTo 0
Next

' Results of each declared type.
Set o = Make("IntegerData"): o.Value = 8
Same o.IsEven(), True, vbBoolean, "IntegerData.IsEven"
Set o = Make("IntegerPercent"): o.AnotherSampleOccured: o.AnotherSampleOccured: o.AnotherSampleOccured: o.Occured
Same o.PercentDisplay, "33%", vbString, "IntegerPercent.PercentDisplay"
Set o = Make("LongPercentData"): o.Occured
Same o.Default, 1, vbLong, "LongPercentData.Default by name"
Set o = Make("IntegerAverage"): o.HereIsAStringOfNumbers "4, 5, 9"
Same o.Average, 6, vbSingle, "IntegerAverage.Average"
Same Make("TextConstants").CR_NL(), vbCrLf, vbString, "TextConstants.CR_NL"
x = 1: x = s.Pop()
Check IsEmpty(x), "InterfaceStack.Pop has no result"

' Errors reach Err with number, description and source; the value is kept.
Set o = Make("IntegerData"): o.Value = 32767
On Error Resume Next
o.Add 1:                                  Fails 6, "Overflow", "KARVO_Valmetra", "IntegerData.Add 1 at 32767"
x = o.ValueBe4Increment:                  Fails 6, "Overflow", "KARVO_Valmetra", "IntegerData.ValueBe4Increment at 32767"
o.IDivide 0:                              Fails 11, "Division by zero", "KARVO_Valmetra", "IntegerData.IDivide 0"
o.Add:                                    Fails 450, "", "", "IntegerData.Add without its argument"
Set a = Make("SingleAverage"): a.HereIsAStringOfNumbers "4, x"
x = a.DataAverage:                        Fails 13, "", "KARVO_Valmetra", "SingleAverage.DataAverage of a text item"
On Error GoTo 0
Same o.Value, 32767, vbInteger, "IntegerData after the failures"

' Swap writes the old Value into the caller's variable, as an Integer whatever the variable
' held; a literal is taken and nothing is written; a failed call writes nothing.
For Each r In Array(Array(9, 9), Array(CLng(-4), -4), Array("7", 7), Array(Empty, 0))
  o.Value = 2: v = r(0): o.Swap v
  Same o.Value, r(1), vbInteger, "Swap takes " & Show(r(0))
  Same v, 2, vbInteger, "Swap writes back into a variable that held " & Show(r(0))
Next
o.Swap 5
Same o.Value, 5, vbInteger, "Swap of a literal"
v = "x"
On Error Resume Next
o.Swap v: Fails 13, "", "", "Swap of a text that is no number"
On Error GoTo 0
Same v, "x", vbString, "the failed Swap left the variable"

Finish "classes.vbs"
