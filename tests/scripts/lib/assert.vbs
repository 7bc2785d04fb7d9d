' Assertions that tests/windows/run.sh joins in front of each VBScript test
' (the script host has no include). Finish prints "PASS <name>" or
' "FAIL <name>"; a script that dies of an uncaught error never prints PASS,
' and the runner insists on that line.
Option Explicit
Dim g_checks, g_failures

Sub Check(ok, what)
  g_checks = g_checks + 1
  If Not ok Then g_failures = g_failures + 1: WScript.Echo "FAIL: " & what
End Sub

Function Show(v)
  Show = "<object>"
  If IsNull(v) Then Show = "<Null>" Else If Not IsObject(v) Then Show = CStr(v) & " (vartype " & VarType(v) & ")"
End Function

Sub CheckEqual(actual, expected, what)
  Check actual = expected, what & ": got " & Show(actual) & ", expected " & Show(expected)
End Sub

' Equal and of the expected Automation type (vbInteger 2, vbLong 3, vbSingle 4, vbDouble 5, vbBoolean 11).
Sub CheckTyped(actual, expected, vt, what)
  Check VarType(actual) = vt And actual = expected, what & ": got " & Show(actual) & ", expected " & Show(expected) & " of vartype " & vt
End Sub

' After a statement run under On Error Resume Next: the error it left (number 0: none; description
' or source "": any), then cleared.
Sub CheckError(number, description, source, what)
  Check Err.Number = number And (description = "" Or Err.Description = description) And (source = "" Or Err.Source = source), _
    what & ": error " & Err.Number & " """ & Err.Description & """ from """ & Err.Source & """, expected " & number & " """ & description & """"
  Err.Clear
End Sub

Sub Finish(name)
  If g_failures = 0 And g_checks > 0 Then WScript.Echo "PASS " & name & ": " & g_checks & " checks": WScript.Quit 0
  WScript.Echo "FAIL " & name & ": " & g_failures & " of " & g_checks & " checks failed"
  WScript.Quit 1
End Sub
