' Uses an installed library the way a script host does: every class created
' by ProgID and called by name, the value history across objects, and an
' error as the host sees it. A template: classes.py --vbscript fills in the
' classes and msi.sh runs the result with cscript //nologo.
' Ends with "PASS msi_use" when every check held (the exit code of cscript
' proves nothing under Wine).
Option Explicit
Dim obj, v, failures, created
failures = 0
created = 0

Sub Check(ok, what)
  If ok Then
    WScript.Echo "  ok    " & what
  Else
    WScript.Echo "  FAIL  " & what
    failures = failures + 1
  End If
End Sub

' Every class of the catalogue, created by ProgID and called by name; the
' lines below are written by tests/deploy/classes.py --vbscript (this VBScript
' engine of Wine 8 has no Eval/Execute to call a member named in data).
' @CLASSES@

' The value history: pushed on one object, popped on another.
Dim a, b
Set a = CreateObject("KARVO_Valmetra.IntegerData")
Set b = CreateObject("KARVO_Valmetra.IntegerData")
a.Value = 41
a.Push
b.Pop
Check b.Value = 41, "IntegerData: a value pushed on one object pops on another (" & b.Value & ")"

' An error as the host sees it.
a.Value = 32767
On Error Resume Next
a.Add 1
Check Err.Number = 6 And Err.Source = "KARVO_Valmetra", "IntegerData: 32767 + 1 raises " & Err.Number & " from " & Err.Source
On Error GoTo 0
Check a.Value = 32767, "IntegerData: the failed Add left the value"

WScript.Echo created & " classes created by ProgID"
If failures = 0 Then WScript.Echo "PASS msi_use"
