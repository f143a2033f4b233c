// A handler that throws is reported and the script goes on; the exit code
// is the Quit code, or 1 when that is 0.
function Brennock_TimerEnded(cause, id) {
    if (id == 1) { Brennock.TimerStart(2, 0); null.boom(); }
    Shell.Echo("handled", id);
    Shell.Quit(Number(Shell.Arguments(0)));
}
Brennock.Open();
Brennock.TimerStart(1, 0);
