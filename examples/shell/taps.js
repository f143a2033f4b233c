// A finger-tapping test run from the bench: the script opens the control,
// starts a 5-second tapping activity and prints every tap as it comes; the
// taps are typed by the bench microcontroller (Shell.Bench, bench only).
//   scripts/simrun --disk-from examples/disk -- build/brennock-shell.exe examples/shell/taps.js
var started = Shell.Time;
if (Brennock.Open() != 1) {
    Shell.Echo("Open failed");
    Shell.Quit(1);
}
Shell.Echo("control open after " + Math.round(Shell.Time - started) + " ms, " + Shell.Now);

function Brennock_TimerGo(ticksAtGo) {
    Shell.Echo("go at tick " + ticksAtGo);
    Shell.Bench("mcu", "digito left down 100");
    Shell.Bench("mcu", "wait 200");
    Shell.Bench("mcu", "digito right down 150");
}
function Brennock_DigitoLeftDownward(ticksSinceGo, deltaTicks) {
    Shell.Echo("left tap " + ticksSinceGo + " ticks after go");
}
function Brennock_DigitoRightDownward(ticksSinceGo, deltaTicks) {
    Shell.Echo("right tap " + ticksSinceGo + " ticks after go");
    Brennock.ActivityEndNormal();
}
function Brennock_ActivityEnded(causeID, testID) {
    Shell.Echo("activity " + testID + " ended, cause " + causeID);
    Brennock.SessionEndNormal();
}
function Brennock_SessionEnded(endCauseID) {
    Shell.Echo("session ended, cause " + endCauseID);
    Brennock.Close();
    Shell.Quit(endCauseID == 0 ? 0 : 1);
    return 0;
}

Brennock.SessionStart();
Brennock.ActivityConfig(1, "Tap", 5, 0);
Brennock.ActivityStart(1);
