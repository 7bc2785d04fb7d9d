' requires: IntegerData LongData IntegerPercent TextConstants
' A blackjack table driven the way the simulator drives the library:
'  - IntegerPercent objects count hands (samples) and wins/blackjacks
'    (occurrences) and give the percentages as display text;
'  - an IntegerData is the position in a six-deck shoe: its limits are the
'    first and last card, ModuloAdd moves the cut card, IncrementToLimit
'    walks through the shoe and starts again at 1 after the last card;
'  - a LongData holds the bankroll; before each hand the bankroll is pushed
'    on the value history, so an "undo last hand" is a Pop;
'  - TextConstants supplies the captions;
'  - an error raised by the library is shown to the user as the simulator
'    shows it: description, number and source.
' Cards come from a fixed pseudo-random sequence, so every run deals the
' same hands.
Option Explicit

Const kDecks = 6
Const kHands = 60
Const kBet = 25

' Every object comes from CreateObject. Under Wine, cscript ends with exit
' code 0 and prints nothing when a script dies of an error nobody caught, so
' calls that can fail are checked: report, then WScript.Quit 1.
Dim text, shoe, cut, bankroll, handsWon, blackjacks, dealerBusts
On Error Resume Next
Set text = CreateObject("KARVO_Valmetra.TextConstants")
Set shoe = CreateObject("KARVO_Valmetra.IntegerData")
Set cut = CreateObject("KARVO_Valmetra.IntegerData")
Set bankroll = CreateObject("KARVO_Valmetra.LongData")
Set handsWon = CreateObject("KARVO_Valmetra.IntegerPercent")
Set blackjacks = CreateObject("KARVO_Valmetra.IntegerPercent")
Set dealerBusts = CreateObject("KARVO_Valmetra.IntegerPercent")
If Err.Number <> 0 Then
  WScript.Echo "Cannot create the library's objects (is it registered?): " & Err.Description & _
               " (error " & Err.Number & ")"
  WScript.Quit 1
End If
On Error GoTo 0

Dim seed
seed = 20090223

' Next card of the shoe: 2..11 (aces count 11, tens include the faces).
Function DrawCard()
  ' Park-Miller minimal standard generator; every product is exact in a Double.
  seed = seed * 16807
  seed = seed - Int(seed / 2147483647) * 2147483647
  Dim rank
  rank = Int(seed / 4096) Mod 13
  If rank >= 9 And rank <= 11 Then
    DrawCard = 10
  ElseIf rank = 12 Then
    DrawCard = 11
  Else
    DrawCard = rank + 2
  End If
  ' Walk through the shoe; after the last card the position wraps to 1.
  shoe.IncrementToLimit 52 * kDecks
  If shoe.Value = 1 Then WScript.Echo "    " & text.cstCardsHaveBeenShuffled
End Function

' Total of a hand, counting aces as 1 where 11 would bust.
Function HandTotal(cards)
  Dim i, total, aces
  total = 0: aces = 0
  For i = 0 To UBound(cards)
    total = total + cards(i)
    If cards(i) = 11 Then aces = aces + 1
  Next
  Do While total > 21 And aces > 0
    total = total - 10: aces = aces - 1
  Loop
  HandTotal = total
End Function

Function Draw(cards)
  ReDim Preserve cards(UBound(cards) + 1)
  cards(UBound(cards)) = DrawCard()
  Draw = HandTotal(cards)
End Function

Sub ShowError(what)
  WScript.Echo "    " & text.cstKarvoInternalError & " " & what & ": " & Err.Description & _
               " " & text.cstErrorCodeID & Err.Number & " (" & Err.Source & ")"
  Err.Clear
End Sub

WScript.Echo text.cstCommonSimulatorText & text.cstKarvoOnBlackjack
WScript.Echo text.cstLetsDeal

' The cut card sits 3/4 into the shoe; ModuloAdd keeps it inside the shoe.
cut.SetTheLimits 1, 52 * kDecks
cut.Value = 200
cut.ModuloAdd 34
WScript.Echo "Cut card at " & cut.Value & " of " & cut.UpperLimit

bankroll.Value = 1000
Dim hand, player, dealer, p, d, outcome
For hand = 1 To kHands
  bankroll.Push
  player = Array(DrawCard(), DrawCard())
  dealer = Array(DrawCard(), DrawCard())
  p = HandTotal(player): d = HandTotal(dealer)
  handsWon.AnotherSampleOccured
  blackjacks.AnotherSampleOccured
  dealerBusts.AnotherSampleOccured
  If p = 21 Then
    blackjacks.Occured
    handsWon.Default = 1    ' any value assigned to Default counts one occurrence
    bankroll.Add kBet * 3 / 2
    outcome = "Blackjack!"
  Else
    Do While p < 17
      p = Draw(player)
    Loop
    If p > 21 Then
      bankroll.Subtract kBet
      outcome = "player busts"
    Else
      Do While d < 17
        d = Draw(dealer)
      Loop
      If d > 21 Then
        dealerBusts.Occured
        handsWon.Occured
        bankroll.Add kBet
        outcome = text.cstDealerBreaks
      ElseIf p > d Then
        handsWon.Occured
        bankroll.Add kBet
        outcome = "player wins " & p & " to " & d
      ElseIf p < d Then
        bankroll.Subtract kBet
        outcome = "dealer wins " & d & " to " & p
      Else
        outcome = "push at " & p
      End If
    End If
  End If
  If hand Mod 10 = 0 Or hand <= 3 Then
    WScript.Echo text.cstNextHand & hand & ": " & outcome & ", bankroll " & bankroll.Value & _
                 ", shoe at card " & shoe.Value
  End If
Next

WScript.Echo "Hands won:       " & handsWon.PercentDisplay & " (" & handsWon & " of " & kHands & ")"
WScript.Echo "Blackjacks:      " & blackjacks.PercentDisplay & " (" & blackjacks.Default & ")"
WScript.Echo "Dealer breaks:   " & dealerBusts.PercentDisplay
WScript.Echo "Bankroll:        " & bankroll.Value

' Undo the last hand: the bankroll before it comes back from the history.
bankroll.Pop
WScript.Echo "After undoing the last hand: " & bankroll.Value

' A bet the 16-bit chip counter cannot hold: the library refuses it and
' the simulator shows the error.
Dim chips
Set chips = CreateObject("KARVO_Valmetra.IntegerData")
chips.Value = 32000
On Error Resume Next
chips.Add 1000
If Err.Number <> 0 Then ShowError "adding 1000 chips to " & chips.Value
chips.IDivide 0
If Err.Number <> 0 Then ShowError "splitting the chips 0 ways"
On Error GoTo 0
WScript.Echo text.cstCasinoIsNowClosed
WScript.Echo "Done."
