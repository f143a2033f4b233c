// soak.js SECONDS [MAX_SESSIONS], for soak_test.sh: each session is the
// sample session's (eight taps, pegs, a questionnaire, a recording started
// and stopped by the voice, a watch download, the normal end), then Close
// and Open again; after each a line "sample N <Shell.Resources>".

var seconds = Number(Shell.Arguments(0));
var maxSessions = Shell.ArgumentCount > 1 ? Number(Shell.Arguments(1)) : 1e9;
var sessions = 0, steps = [], pending = [], current = "", taps = 0;
var watchRead = false, waitingForWatch = false;

function fail(text) {
    Shell.Echo("soak: session " + (sessions + 1) + ": " + text);
    Shell.Quit(1);
}
function check(cause, what) { if (cause != 0) fail(what + " (cause " + cause + ")"); }
// The next step runs from the shell's own wait, not inside the event that
// ended the last one.
function later(f) { pending.push(f); }
function next() { if (steps.length > 0) steps.shift()(); }
function activity(id, name, maxSecs, flags) {
    current = name;
    Brennock.ActivityConfig(id, name, maxSecs, 0);
    Brennock.ActivityStart(flags);
}

function questionnaire() {
    activity(7, "Quest", 0, 0);
    Brennock.QuestionResponse("Q1-sleep", "A3");
    Brennock.QuestionResponse("Q2-tremor", "A1");
    Brennock.ActivityEndNormal();
}
function voice() {
    activity(6, "Voice", 60, 0);
    Brennock.RecFormat = "Rec22k.wav";
    Brennock.RecStartTimeoutS = 15;
    Brennock.AudioRecord(1 | 2, 20);
    Shell.Bench("sound", "mic speech.wav");
}
function watch() {
    current = "Watch";
    waitingForWatch = !watchRead;
    if (watchRead)
        Brennock.WatchSaveStart("Watch");
}
function end() { current = ""; Brennock.SessionEndNormal(); }
function startSession() {
    if (Brennock.Open() != 1)
        fail("Open failed");
    watchRead = false;
    Brennock.SessionStart();
    steps = [function () { activity(2, "Pegs", 30, 0); }, questionnaire, voice, watch, end];
    taps = 0;
    activity(1, "Tap", 30, 1);
}

function Brennock_TimerGo(ticks) {
    for (var i = 0; i < 4; i++) {
        if (current == "Tap") {
            Shell.Bench("mcu", "wait 20");
            Shell.Bench("mcu", "digito left down " + (80 + i));
            Shell.Bench("mcu", "digito left up 60");
            Shell.Bench("mcu", "digito right down " + (90 + i));
            Shell.Bench("mcu", "digito right up 60");
        } else if (current == "Pegs")  // the pegs move across one by one
            Shell.Bench("mcu", "pegs " + (15 & ~((2 << i) - 1)) + " " + ((2 << i) - 1));
    }
}
function tapped() {
    if (current == "Tap" && ++taps == 8)
        Brennock.ActivityEndNormal();
}
function Brennock_DigitoLeftUpward(t, d) { tapped(); }
function Brennock_DigitoRightUpward(t, d) { tapped(); }
function Brennock_PegsMap(t, left, right) {
    if (current == "Pegs" && right == 15)
        Brennock.ActivityEndNormal();
}
function Brennock_ActivityEnded(cause, testID) {
    check(cause, "test " + testID + " ended");
    later(next);
}
function Brennock_AudioRecordEnded(cause) {
    check(cause, "the recording ended");
    Brennock.ActivityEndNormal();
}
function Brennock_WatchParametersRead(cause) {
    watchRead = cause == 0;
    if (watchRead && waitingForWatch) {
        waitingForWatch = false;
        Brennock.WatchSaveStart("Watch");
    }
}
function Brennock_WatchSaveEnded(cause) {
    check(cause, "the watch download ended");
    later(next);
}
function Brennock_SessionEnded(cause) {
    check(cause, "the session's files were not packed");
    sessions++;
    later(afterSession);
    return 1;
}
function afterSession() {
    Brennock.Close();
    Shell.Echo("sample " + sessions + " " + Shell.Resources);
    if (sessions >= maxSessions || Shell.Time >= seconds * 1000) {
        Shell.Echo("soak done " + sessions + " sessions in " + Math.round(Shell.Time / 1000) + " s");
        Shell.Quit(0);
    }
    startSession();
}

Shell.Echo("sample 0 " + Shell.Resources);
startSession();
for (;;) {
    Shell.Sleep(20);
    while (pending.length > 0)
        pending.shift()();
}
