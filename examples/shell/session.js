// session.js: a whole test session as the device's UI runs it, in the
// device shell, driven by the control's events.
//
//   scripts/simrun --disk DISK --sound "" --watch "--rate fast --seated" \
//       -- build/brennock-shell.exe --timeout 100 examples/shell/session.js
//
// scripts/setup makes the disk and runs this. On the bench the subject is
// played by the simulators: the taps and the pegs come from the
// microcontroller simulator, played when the test's timer goes; the voice is
// the sound simulator's speech file; the watch is the watch simulator, seated
// in the cradle. Shell.Bench hands them their lines.
//
// Steps: check the schedule, start the session, a tapping test, a pegs test,
// a questionnaire, a voice recording, a watch download, the normal end
// (which packs the session's files into one encrypted, signed .ezip). Each
// step and every event it got is printed as it happens.

var t0 = Shell.Time;
function say(text) {
    var s = ((Shell.Time - t0) / 1000).toFixed(2);
    while (s.length < 7) s = " " + s;
    Shell.Echo(s + "  " + text);
}
function fail(text) {
    say("FAILED: " + text);
    Brennock.Close();
    Shell.Quit(1);
}

var steps = [];          // the steps still to run, each a function
var events = {};         // event name -> how many came
function got(name, args) {
    events[name] = (events[name] || 0) + 1;
    say("  event " + name + "(" + args.join(", ") + ")");
}
function next() {
    if (steps.length == 0)
        return;
    var step = steps.shift();
    step();
}

// ---------------------------------------------------------------------------
// The tests.

var taps = 0;
var maps = 0;
var current = "";

function tappingTest() {
    say("tapping test: 2 fingers, 8 taps");
    current = "Tap";
    taps = 0;
    Brennock.ActivityConfig(1, "Tap", 30, 0);
    Brennock.ActivityStart(1);          // the go strobe, with the beep
}
function pegsTest() {
    say("pegs test: 4 pegs moved from left to right");
    current = "Pegs";
    maps = 0;
    Brennock.ActivityConfig(2, "Pegs", 30, 0);
    Brennock.ActivityStart(0);
}
function questionnaire() {
    say("questionnaire: 3 answers");
    current = "Quest";
    Brennock.ActivityConfig(7, "Quest", 0, 0);
    Brennock.ActivityStart(0);
    Brennock.QuestionResponse("Q1-sleep", "A3");
    Brennock.QuestionResponse("Q2-tremor", "A1");
    Brennock.QuestionResponse("Q3-mood", "A4");
    Brennock.ActivityEndNormal();
}
function voice() {
    say("voice: say \"aah\" when the light comes on (started and stopped by the voice)");
    current = "Voice";
    Brennock.ActivityConfig(6, "Voice", 60, 0);
    Brennock.ActivityStart(0);
    Brennock.RecFormat = "Rec22k.wav";
    Brennock.RecStartTimeoutS = 15;
    Brennock.AudioRecord(1 | 2, 20);    // START_ON_VOLUME | STOP_ON_VOLUME
    Brennock.SetLedState(1, 1);
    Shell.Bench("sound", "mic speech.wav");
}
function watchDownload() {
    if (!watchRead) {
        say("watch: waiting for the watch in the cradle");
        return;                         // WatchParametersRead calls again
    }
    say("watch: downloading its recording");
    current = "Watch";
    Brennock.WatchSaveStart("Watch");
}
function endSession() {
    say("ending the session: packing its files");
    current = "";
    Brennock.SessionEndNormal();
}

// ---------------------------------------------------------------------------
// Events.

function Brennock_HC08Reset(rev, build, source, tickHz, post) {
    got("HC08Reset", [rev, build, source, tickHz, post]);
}
function Brennock_TimerGo(ticksAtGo) {
    got("TimerGo", [ticksAtGo]);
    if (current == "Tap") {
        // The subject taps: left and right, 200 ms apart.
        for (var i = 0; i < 4; i++) {
            Shell.Bench("mcu", "wait 120");
            Shell.Bench("mcu", "digito left down " + (80 + i * 5));
            Shell.Bench("mcu", "wait 60");
            Shell.Bench("mcu", "digito left up 60");
            Shell.Bench("mcu", "wait 120");
            Shell.Bench("mcu", "digito right down " + (90 + i * 5));
            Shell.Bench("mcu", "wait 60");
            Shell.Bench("mcu", "digito right up 60");
        }
    } else if (current == "Pegs") {
        var left = 15, right = 0;
        for (var p = 0; p < 4; p++) {
            left &= ~(1 << p);
            right |= 1 << p;
            Shell.Bench("mcu", "wait 250");
            Shell.Bench("mcu", "pegs " + left + " " + right);
        }
    }
}
function Brennock_TimerRollover() { got("TimerRollover", []); }
function Brennock_DigitoLeftDownward(t, d) { got("DigitoLeftDownward", [t, d]); }
function Brennock_DigitoRightDownward(t, d) { got("DigitoRightDownward", [t, d]); }
function Brennock_DigitoLeftUpward(t, d) { got("DigitoLeftUpward", [t, d]); tapped(); }
function Brennock_DigitoRightUpward(t, d) { got("DigitoRightUpward", [t, d]); tapped(); }
// A tap is over when the finger is up again.
function tapped() {
    if (++taps == 8) {
        say("8 taps: the test ends");
        Brennock.ActivityEndNormal();
    }
}
function Brennock_PegsMap(t, left, right) {
    got("PegsMap", [t, left, right]);
    if (current == "Pegs" && right == 15) {
        say("all pegs moved: the test ends");
        Brennock.ActivityEndNormal();
    }
}
function Brennock_ActivityEnded(cause, testID) {
    got("ActivityEnded", [cause, testID]);
    if (cause != 0)
        fail("test " + testID + " ended with cause " + cause);
    next();
}
function Brennock_AudioRecordProgress(maxVolume, seconds) {
    got("AudioRecordProgress", [maxVolume, seconds]);
}
function Brennock_AudioRecordEnded(cause) {
    got("AudioRecordEnded", [cause]);
    Brennock.SetLedState(1, 0);
    if (cause != 0)
        fail("the voice recording ended with cause " + cause);
    Brennock.ActivityEndNormal();
}
var watchRead = false;
function Brennock_WatchVisible(isVisible) { got("WatchVisible", [isVisible]); }
function Brennock_WatchParametersRead(cause) {
    got("WatchParametersRead", [cause]);
    watchRead = cause == 0;
    if (watchRead && current == "" && waitingForWatch) {
        waitingForWatch = false;
        watchDownload();
    }
}
function Brennock_WatchSaveProgress(percent) { got("WatchSaveProgress", [percent]); }
function Brennock_WatchSaveEnded(cause) {
    got("WatchSaveEnded", [cause]);
    if (cause != 0)
        fail("the watch download ended with cause " + cause);
    next();
}
function Brennock_SessionEnded(cause) {
    got("SessionEnded", [cause]);
    if (cause != 0)
        fail("the session's files were not packed (cause " + cause + ")");
    say("session done: " + summary());
    Brennock.Close();
    Shell.Quit(0);
    return 1;
}
function summary() {
    var parts = [];
    for (var name in events)
        parts.push(name + " x" + events[name]);
    return parts.join(", ");
}

// ---------------------------------------------------------------------------
// The session.

if (Brennock.Open() != 1)
    fail("the control did not open (is the disk provisioned? see README)");
say("device " + Brennock.NVParameterRead("DEVICEID", "NOID") + ", " + Brennock.FreeStoreMB + " MB free");
say("next session from " + Brennock.GetNextSessionStart() + " to " + Brennock.GetNextSessionEnd() +
    (Brennock.InSessionWindow ? " (now)" : " (not now: starting one all the same, for the bench)"));
Brennock.SessionStart();
say("session started");
var waitingForWatch = false;
steps = [pegsTest, questionnaire, voice, function () {
    waitingForWatch = !watchRead;
    watchDownload();
}, endSession];
tappingTest();
