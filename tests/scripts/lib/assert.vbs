' Assertions shared by the VBScript tests. tests/windows/run.sh joins this
' file in front of each test script (the script host here cannot include
' files), so a test calls these helpers directly and ends with Finish.
'
' Every check prints a FAIL line when it does not hold; Finish prints one
' "PASS <name>" or "FAIL <name>" line and sets the exit code. A script that
' dies of an unexpected runtime error never reaches Finish, so the runner
' also insists on the PASS line.
Option Explicit

Dim g_checks, g_failures
g_checks = 0
g_failures = 0

Sub Fail(what)
  g_failures = g_failures + 1
  WScript.Echo "FAIL: " & what
End Sub

Sub Check(condition, what)
  g_checks = g_checks + 1
  If Not condition Then Fail what
End Sub

Function Show(v)
  If IsObject(v) Then
    Show = "<object>"
  ElseIf IsNull(v) Then
    Show = "<Null>"
  ElseIf IsEmpty(v) Then
    Show = "<Empty>"
  Else
    Show = CStr(v) & " (vartype " & VarType(v) & ")"
  End If
End Function

Sub CheckEqual(actual, expected, what)
  g_checks = g_checks + 1
  If actual <> expected Then Fail what & ": got " & Show(actual) & ", expected " & Show(expected)
End Sub

' Numeric equality including the Automation type of the result
' (vbInteger 2, vbLong 3, vbSingle 4, vbDouble 5, vbBoolean 11).
Sub CheckTyped(actual, expected, vartypeExpected, what)
  g_checks = g_checks + 1
  If VarType(actual) <> vartypeExpected Then
    Fail what & ": got " & Show(actual) & ", expected vartype " & vartypeExpected
  ElseIf actual <> expected Then
    Fail what & ": got " & Show(actual) & ", expected " & Show(expected)
  End If
End Sub

' Call right after a statement that ran under On Error Resume Next: checks
' the error it left behind and clears it. description "" means "any".
Sub CheckError(number, description, source, what)
  g_checks = g_checks + 1
  If Err.Number = 0 Then
    Fail what & ": no error, expected " & number
  ElseIf Err.Number <> number Then
    Fail what & ": error " & Err.Number & " (" & Hex(Err.Number) & ") """ & Err.Description & """, expected " & number
  ElseIf description <> "" And Err.Description <> description Then
    Fail what & ": description """ & Err.Description & """, expected """ & description & """"
  ElseIf source <> "" And Err.Source <> source Then
    Fail what & ": source """ & Err.Source & """, expected """ & source & """"
  End If
  Err.Clear
End Sub

' The statement before it, run under On Error Resume Next, must not fail.
Sub CheckNoError(what)
  g_checks = g_checks + 1
  If Err.Number <> 0 Then Fail what & ": error " & Err.Number & " """ & Err.Description & """"
  Err.Clear
End Sub

Sub Finish(name)
  If g_failures = 0 And g_checks > 0 Then
    WScript.Echo "PASS " & name & ": " & g_checks & " checks"
    WScript.Quit 0
  End If
  WScript.Echo "FAIL " & name & ": " & g_failures & " of " & g_checks & " checks failed"
  WScript.Quit 1
End Sub
