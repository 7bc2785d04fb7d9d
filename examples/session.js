// requires: IntegerData IntegerPercent
// A JScript host keeping the statistics of one blackjack session: the
// position of the discard tray in a single-deck game (IntegerData with stored
// limits and ModuloAdd), the share of hands the player doubled down on
// (IntegerPercent), the bet size saved on the value history before a
// doubling and restored afterwards, and an error of the library shown to
// the user from a catch block.
var tray = new ActiveXObject("KARVO_Valmetra.IntegerData");
var doubled = new ActiveXObject("KARVO_Valmetra.IntegerPercent");
var bet = new ActiveXObject("KARVO_Valmetra.IntegerData");

var cardsPerHand = [5, 4, 6, 4, 5, 7, 4, 5, 4, 6, 5, 4];
var doubleOn = [false, true, false, false, true, false, false, true, false, false, true, false];

tray.SetTheLimits(1, 52);
bet.Value = 10;
for (var hand = 0; hand < cardsPerHand.length; hand++) {
  doubled.AnotherSampleOccured();
  if (doubleOn[hand]) {
    doubled.Occured();
    bet.Push();            // remember the normal bet
    bet.DoubleYourself();  // play this hand at twice the bet
  }
  // The tray grows by the cards of the hand; past the last card of the
  // shoe the position comes back inside the limits.
  tray.ModuloAdd(cardsPerHand[hand]);
  WScript.Echo("Hand " + (hand + 1) + ": bet " + bet.Value + ", " + cardsPerHand[hand] +
               " cards, discard tray at " + tray.Value);
  if (doubleOn[hand]) bet.Pop();  // back to the normal bet
}
WScript.Echo("Doubled down on " + doubled.PercentDisplay + " of " + cardsPerHand.length +
             " hands (" + doubled.Percent + " percent)");

// The player asks for a bet the table's 16-bit counter cannot hold.
try {
  bet.Value = 20000;
  bet.DoubleYourself();
} catch (e) {
  WScript.Echo("Sorry, that bet cannot be placed: " + e.description + " (error " +
               (e.number & 0xFFFF) + "); the bet stays at " + bet.Value);
}
WScript.Echo("Done.");
