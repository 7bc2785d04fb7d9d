' requires: IntegerData LongData InterfaceStack
' Global instances from a script: binding a class by its identifier
' (GetObject "clsid:...") reaches the thread's global instance of that
' class, the same one every time; objects made with CreateObject are others.
Const kIntegerData = "clsid:4275b69a-c710-4e47-b603-556e479b2382"
Const kLongData = "clsid:65fe8444-c51f-4d1f-bf81-f68b5cda74ab"
Const kInterfaceStack = "clsid:ee5f2f41-ec1b-4c07-8cd9-6986427dbfda"
Dim g1, g2, own, gl, x

Set g1 = GetObject(kIntegerData)
CheckEqual g1.Value, 0, "the global instance starts at 0"
g1.Value = 42
Set g2 = GetObject(kIntegerData)
CheckEqual g2.Value, 42, "a second binding reaches the same instance"
x = g2
CheckEqual x, 42, "its value member"
Set own = CreateObject("KARVO_Valmetra.IntegerData")
CheckEqual own.Value, 0, "CreateObject makes a new object"
own.Value = 5
CheckEqual g1.Value, 42, "which is not the global instance"

Set gl = GetObject(kLongData)
CheckEqual gl.Value, 0, "each class has its own global instance"

' The global instance and created objects share the thread's history.
g1.Push
own.Pop
CheckEqual own.Value, 42, "history shared with the global instance"

' A creatable-only class has no global instance to bind.
On Error Resume Next
Set x = GetObject(kInterfaceStack)
Check Err.Number <> 0, "InterfaceStack has no global instance"
Err.Clear
On Error GoTo 0

Finish "globals.vbs"
