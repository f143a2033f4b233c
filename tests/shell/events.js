// Events through the shell in JScript, one line each; shell_test.sh checks them.
function Brennock_HC08Reset(rev, build, source, tickHz, post) {
    Shell.Echo("HC08Reset", rev, build, source, tickHz, post, typeof tickHz);
}
function Brennock_TimerGo(ticks) { Shell.Echo("TimerGo", ticks); }
function Brennock_PegsMap(ticks, left, right) { Shell.Echo("PegsMap", ticks, left, right); }
function Brennock_CapsitLeftDown(ticks) {
    Shell.Echo("CapsitLeftDown from the line");
    Brennock.TimerStart(2, 0);
}
var timerEnded = false;
function Brennock_TimerEnded(cause, id) {
    Shell.Echo("TimerEnded", cause, id);
    timerEnded = true;
    if (id == 2) Shell.Quit(7);
}
function caught(f) {
    try { f(); return "no exception"; } catch (e) { return (e.number >>> 0).toString(16) + " " + e.message; }
}

Shell.Echo("args", Shell.ArgumentCount, Shell.Arguments(0), "[" + Shell.Arguments(1) + "]");
Shell.Echo("open", Brennock.Open());
Brennock.SimTimerGo(1234);
Brennock.SimPegsMap(10, 3, 5);
Brennock.SimCapsitRightDown(1);   // no handler: ignored
Shell.Echo("type", caught(function () { Brennock.TimerStart("soon", 1); }));
Shell.Echo("count", caught(function () { Brennock.TimerStart(1); }));
Brennock.SessionStart();
Shell.Echo("fail", caught(function () { Brennock.SessionStart(); }));
Shell.Echo("shell", caught(function () { Shell.Arguments(5); }));
Brennock.TimerStart(1, 0.2);
while (!timerEnded && Shell.Time < 20000)
    Shell.Sleep(50);              // the timer ends during a sleep
Shell.Echo("slept");
Shell.Bench("mcu", "capsit left down");
