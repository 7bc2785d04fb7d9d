' An installed library used the way a script host does: every class created by
' ProgID and called by name (lines written by reg.py vbs: this VBScript engine
' has no Execute to call a member named in data), the value history across
' objects, and an error as the host sees it. Ends with "PASS" when every check
' held (cscript's exit code proves nothing under Wine).
Dim obj, v, failures
failures = 0
Sub Check(ok, what)
  If Not ok Then WScript.Echo "  FAIL  " & what: failures = failures + 1
End Sub
On Error Resume Next
' @CLASSES@
On Error GoTo 0
Set a = CreateObject("KARVO_Valmetra.IntegerData")
Set b = CreateObject("KARVO_Valmetra.IntegerData")
a.Value = 41
a.Push
b.Pop
Check b.Value = 41, "IntegerData: pushed on one object, popped on another (" & b.Value & ")"
a.Value = 32767
On Error Resume Next
a.Add 1
Check Err.Number = 6 And Err.Source = "KARVO_Valmetra", "IntegerData: 32767 + 1 raises " & Err.Number & " from " & Err.Source
On Error GoTo 0
Check a.Value = 32767, "IntegerData: the failed Add left the value"
If failures = 0 Then WScript.Echo "PASS"
