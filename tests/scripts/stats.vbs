' requires: IntegerPercent LongPercentData SingleAverage IntegerAverage TextConstants
' Percent counters, sample averages and the text catalogue as a script
' host uses them: value members where they exist, member-not-found where
' they do not, display texts, errors passed on from working objects.
Dim p, lp, sa, ia, t, x

Set p = CreateObject("KARVO_Valmetra.IntegerPercent")
CheckEqual p.PercentDisplay, "%", "new counter displays %"
p.AnotherSampleOccured
p.AnotherSampleOccured
p.AnotherSampleOccured
p.Occured
CheckEqual p.PercentDisplay, "33%", "1 in 3"
CheckEqual CStr(p.RawPercent), CStr(CSng(1 / 3)), "RawPercent is a Single"
p.Default = 1000
CheckTyped p.Default, 2, vbInteger, "assigning Default counts one occurrence"
x = p
CheckEqual x, 2, "IntegerPercent value member"
CheckEqual p.PercentDisplay, "67%", "2 in 3"

Set lp = CreateObject("KARVO_Valmetra.LongPercentData")
lp.Occured
CheckTyped lp.Default, 1, vbLong, "LongPercentData Default by name"
On Error Resume Next
x = lp
CheckError 438, "", "", "LongPercentData has no value member"
On Error GoTo 0

Set sa = CreateObject("KARVO_Valmetra.SingleAverage")
sa.HereIsAStringOfNumbers "4, 5, 6"
CheckEqual sa.GiveMeYourNumbers, "4, 5,  6", "the last piece is kept untrimmed"
CheckTyped sa.Average, 5, vbSingle, "Average"
CheckEqual sa.DataHighest, 6, "DataHighest"
sa.IncludeThisStringOfNumbers "x"
On Error Resume Next
x = sa.DataAverage
CheckError 13, "", "", "a text item that is no number"
On Error GoTo 0

Set ia = CreateObject("KARVO_Valmetra.IntegerAverage")
ia.HereIsAStringOfNumbers "30000,30000,-30000"
On Error Resume Next
x = ia.DataAverage
CheckError 6, "Overflow", "KARVO_Valmetra", "the running IntegerData sum overflows"
On Error GoTo 0
ia.HereIsAStringOfNumbers ""
ia.AddNumericData -3
ia.AddAPieceOfData -3
CheckEqual ia.GiveMeYourNumbers, "-3", "AddNumericData ignores negatives"
CheckEqual ia.DataLowest, -3, "DataLowest"

Set t = CreateObject("KARVO_Valmetra.TextConstants")
CheckEqual t.cstKarvoOnBlackjack, "Karvo on Blackjack", "a caption by name"
CheckEqual t.CR_NL(), vbCrLf, "CR_NL"
On Error Resume Next
x = t
CheckError 438, "", "", "TextConstants has no value member"
On Error GoTo 0

Finish "stats.vbs"
