// requires: IntegerData IntegerPercent
// A JScript host keeping the statistics of one blackjack session: the
// position of the discard tray in a single-deck game (IntegerData with stored
// limits and ModuloAdd), the share of hands the player doubled down on
// (IntegerPercent), the bet size saved on the value history before a
// doubling and restored afterwards, and an error of the library shown to
// the user from a catch block. Every object comes from WScript.CreateObject
// (new ActiveXObject is the same call).
//
// Under Wine, cscript ends with exit code 0 and prints nothing when a script
// dies of an error nobody caught; the outer try/catch reports any failure and
// ends with exit code 1, so a failure cannot pass for success.
function session() {
  var tray = WScript.CreateObject("KARVO_Valmetra.IntegerData");
  var doubled = WScript.CreateObject("KARVO_Valmetra.IntegerPercent");
  var bet = WScript.CreateObject("KARVO_Valmetra.IntegerData");

  var cardsPerHand = [5, 4, 6, 4, 5, 7, 4, 5, 4, 6, 5, 4];
  var doubleOn = [false, true, false, false, true, false, false, true, false, false, true, false];
  var bets = [], trays = [];

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
    bets.push(bet.Value);
    trays.push(tray.Value);
    if (doubleOn[hand]) bet.Pop();  // back to the normal bet
  }
  WScript.Echo("Bets of the " + cardsPerHand.length + " hands: " + bets.join(" "));
  WScript.Echo("Discard tray after each hand: " + trays.join(" "));
  WScript.Echo("Doubled down on " + doubled.PercentDisplay + " of the hands (" + doubled.Percent + " percent)");

  // The player asks for a bet the table's 16-bit counter cannot hold: an
  // expected refusal, shown and survived.
  try {
    bet.Value = 20000;
    bet.DoubleYourself();
  } catch (e) {
    WScript.Echo("Sorry, that bet cannot be placed: " + e.description + " (error " +
                 (e.number & 0xFFFF) + "); the bet stays at " + bet.Value);
  }
}

try {
  session();
} catch (e) {
  WScript.Echo("session.js failed: " + e.description + " (error " + (e.number & 0xFFFF) + ")");
  WScript.Quit(1);
}
WScript.Echo("Done.");
