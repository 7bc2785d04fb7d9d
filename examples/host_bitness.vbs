' requires: SingleAverage IntegerPercent IntegerData
' hosts: x64 x86
' The same calls from a 64-bit and from a 32-bit script host: each loads the
' library of its own bitness (the x64 or the x86 DLL, both registered), and
' both compute the same Single results to the last bit.
Option Explicit

Dim host, average, share, counter
If CreateObject("WScript.Shell").Environment("Process")("PROCESSOR_ARCHITECTURE") = "x86" Then
  host = "32-bit host"
Else
  host = "64-bit host"
End If

Set average = CreateObject("KARVO_Valmetra.SingleAverage")
Set share = CreateObject("KARVO_Valmetra.IntegerPercent")
Set counter = CreateObject("KARVO_Valmetra.IntegerData")

average.HereIsAStringOfNumbers "2.5, 3.1, 4.7"
share.AnotherSampleOccured
share.AnotherSampleOccured
share.AnotherSampleOccured
share.Occured
counter.Value = 32767

' A failure the library reports is caught, shown and ends the script with
' exit code 1; anything else failing stops the script before "Done.".
On Error Resume Next
counter.Add 1
If Err.Number <> 6 Then
  WScript.Echo host & ": 32767 + 1 should fail with error 6 (Overflow), got " & Err.Number & " " & Err.Description
  WScript.Quit 1
End If
Dim overflow
overflow = Err.Description & " (error " & Err.Number & ", " & Err.Source & ")"
On Error GoTo 0

WScript.Echo host & ": mean of 2.5, 3.1, 4.7 = " & CDbl(average.DataAverage) & "; 1 of 3 = " & CDbl(share.Percent) & _
             " percent; 32767 + 1: " & overflow
WScript.Echo "Done."
