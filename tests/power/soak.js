// soak.js: whole sessions one after another in one shell process, for a
// given time or number of sessions, sampling what the process holds.
//
//   brennock-shell.exe tests/power/soak.js SECONDS [MAX_SESSIONS]
//
// Each session is the sample session's: a tapping test (eight taps played
// by the microcontroller simulator), a pegs test, a questionnaire, a voice
// recording started and stopped by the voice, a watch download and the
// normal end that packs the files; then Close, and Open again for the next.
// After each session one line:
//   sample N handles=.. private=.. gdi=.. user=..
// and at the end "soak done N sessions". The caller judges the samples.

var seconds = Number(Shell.Arguments(0));
var maxSessions = Shell.ArgumentCount > 1 ? Number(Shell.Arguments(1)) : 1e9;
var sessions = 0;
var steps = [];
var current = "";
var taps = 0, pegs = 0;
var watchRead = false, waitingForWatch = false;

function fail(text) {
    Shell.Echo("soak: session " + (sessions + 1) + ": " + text);
    Shell.Quit(1);
}
function next() {
    if (steps.length > 0)
        steps.shift()();
}

function tapping() {
    current = "Tap"; taps = 0;
    Brennock.ActivityConfig(1, "Tap", 30, 0);
    Brennock.ActivityStart(1);
}
function pegsTest() {
    current = "Pegs";
    Brennock.ActivityConfig(2, "Pegs", 30, 0);
    Brennock.ActivityStart(0);
}
function questionnaire() {
    current = "Quest";
    Brennock.ActivityConfig(7, "Quest", 0, 0);
    Brennock.ActivityStart(0);
    Brennock.QuestionResponse("Q1-sleep", "A3");
    Brennock.QuestionResponse("Q2-tremor", "A1");
    Brennock.ActivityEndNormal();
}
function voice() {
    current = "Voice";
    Brennock.ActivityConfig(6, "Voice", 60, 0);
    Brennock.ActivityStart(0);
    Brennock.RecFormat = "Rec22k.wav";
    Brennock.RecStartTimeoutS = 15;
    Brennock.AudioRecord(1 | 2, 20);
    Shell.Bench("sound", "mic speech.wav");
}
function watch() {
    current = "Watch";
    if (!watchRead) {
        waitingForWatch = true;
        return;
    }
    Brennock.WatchSaveStart("Watch");
}
function end() {
    current = "";
    Brennock.SessionEndNormal();
}

function startSession() {
    if (Brennock.Open() != 1)
        fail("Open failed");
    watchRead = false;
    Brennock.SessionStart();
    steps = [pegsTest, questionnaire, voice, watch, end];
    tapping();
}

function Brennock_TimerGo(ticks) {
    if (current == "Tap") {
        for (var i = 0; i < 4; i++) {
            Shell.Bench("mcu", "wait 20");
            Shell.Bench("mcu", "digito left down " + (80 + i));
            Shell.Bench("mcu", "digito left up 60");
            Shell.Bench("mcu", "digito right down " + (90 + i));
            Shell.Bench("mcu", "digito right up 60");
        }
    } else if (current == "Pegs") {
        var left = 15, right = 0;
        for (var p = 0; p < 4; p++) {
            left &= ~(1 << p);
            right |= 1 << p;
            Shell.Bench("mcu", "pegs " + left + " " + right);
        }
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
    if (cause != 0)
        fail("test " + testID + " ended with cause " + cause);
    later(next);
}
function Brennock_AudioRecordEnded(cause) {
    if (cause != 0)
        fail("the recording ended with cause " + cause);
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
    if (cause != 0)
        fail("the watch download ended with cause " + cause);
    later(next);
}
function Brennock_SessionEnded(cause) {
    if (cause != 0)
        fail("the session's files were not packed (cause " + cause + ")");
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

// The next step runs from the shell's own wait, not inside the event that
// ended the last one.
function later(f) {
    pending.push(f);
}
var pending = [];

Shell.Echo("sample 0 " + Shell.Resources);
startSession();
for (;;) {
    Shell.Sleep(20);
    while (pending.length > 0)
        pending.shift()();
}
