' Joined in front of each VBScript test by tests/windows/run.sh (the script
' host has no include). Finish prints "PASS <name>" only when every check held;
' a script that dies never prints it, and the runner insists on that line.
Option Explicit
Dim g_checks, g_failures

' A new object of the library's class, or of a whole ProgID.
Function Make(name)
  If InStr(name, ".") Then Set Make = CreateObject(name) Else Set Make = CreateObject("KARVO_Valmetra." & name)
End Function

Sub Check(ok, what)  ' a Null is a failure
  g_checks = g_checks + 1
  If IsNull(ok) Or Not ok Then g_failures = g_failures + 1: WScript.Echo "FAIL: " & what
End Sub

Function Show(v)  ' for messages: the value and its vartype
  Show = "<" & TypeName(v) & ">"
  If Not (IsObject(v) Or IsArray(v) Or IsNull(v)) Then Show = CStr(v) & " (vartype " & VarType(v) & ")"
End Function

' Equal and, when vt > 0, of that vartype (2 Integer, 3 Long, 4 Single, 5 Double, 8 String, 11 Boolean).
Sub Same(actual, expected, vt, what)
  Check actual = expected And (vt = 0 Or VarType(actual) = vt), what & ": got " & Show(actual) & ", expected " & Show(expected)
End Sub

' Under On Error Resume Next: the error the last statement left (0: none; "" matches any text), then cleared.
Sub Fails(number, description, source, what)
  Check Err.Number = number And (description = "" Or Err.Description = description) And (source = "" Or Err.Source = source), _
    what & ": error " & Err.Number & " """ & Err.Description & """ from """ & Err.Source & """, expected " & number
  Err.Clear
End Sub

Sub Finish(name)
  If g_failures = 0 And g_checks > 0 Then WScript.Echo "PASS " & name & ": " & g_checks & " checks" _
    Else WScript.Echo "FAIL " & name & ": " & g_failures & " of " & g_checks & " checks failed"
End Sub
