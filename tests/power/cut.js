// cut.js MODE: keeps the control writing one kind of file (MODE: assert,
// nvram, motr, wav, trem, package; open just opens and quits) until the power
// cut test kills the shell from outside. Every run begins with Open, so a run
// after a cut is also the check that the device comes up again. Marks go to
// \cut.cmd on the device disk through Shell.Bench: "opened" after Open, then
// "point ..." just before the write the test cuts into.

var mode = Shell.ArgumentCount > 0 ? Shell.Arguments(0) : "open";
var round = 0, pegs = 0, nextRound = null, watchRead = false, saving = false;
function mark(text) { Shell.Bench("cut", text); }
function fail(text) { Shell.Echo("cut.js: " + text); mark("failed " + text); Shell.Quit(1); }
function activity(id, name) { Brennock.ActivityConfig(id, name, 0, 0); Brennock.ActivityStart(0); }
// A burst of pegs packets from the microcontroller simulator.
function burst(n) { Shell.Bench("mcu", "burst " + n + " pegs"); Shell.Bench("mcu", "mark burst done " + round); }
// The next round runs from a user timer, not from inside the event that
// ended the last one.
function later(f) {
    nextRound = f;
    Brennock.TimerStart(9, 0.05);
}
function Brennock_TimerEnded(cause, id) {
    if (id == 9 && nextRound != null) {
        var f = nextRound;
        nextRound = null;
        f();
    }
}

if (Brennock.Open() != 1)
    fail("Open failed");
mark("opened " + Brennock.NVParameterRead("NextPictureIndex", "none"));
if (mode == "open") {
    Brennock.Close();
    Shell.Quit(0);
}

// The assert file: one line per call, appended for ever.
if (mode == "assert") {
    mark("point appending");
    for (;;) {
        round++;
        Brennock.AssertWrite("cut.js", round % 30000, "power cut probe " + round);
    }
}

// The NVRAM commit: sessions one after another, each changing the picture
// index, whose normal end commits the image to flash (and packs an empty
// session). The end is synchronous, so a plain loop does it.
function nvramRound() {
    Brennock.SessionStart();
    var index = Number(Brennock.NVParameterRead("NextPictureIndex", "0")) + 1;
    Brennock.NVParameterWrite("NextPictureIndex", String(index));
    mark("point commit " + index);
    Brennock.SessionEndNormal();
}

// A .motr: a pegs test with thousands of packets, ended by the script; the
// end writes the file.
function motrRound() {
    if (++round == 1)
        Brennock.SessionStart();
    activity(2, "Pegs");
    burst(4000);
}
function Brennock_PegsMap(t, left, right) {
    if (++pegs < (mode == "motr" ? 4000 : 400))
        return;
    pegs = 0;
    mark("point " + mode + " " + round);
    if (mode == "motr")
        Brennock.ActivityEndNormal();
    else
        Brennock.SessionEndNormal();
}

// A .wav: a voice recording started at once and running until the cut.
function wavRound() {
    Brennock.SessionStart();
    activity(6, "Voice");
    Brennock.RecFormat = "Rec22k.wav";
    Brennock.AudioRecord(0, 60);
    Shell.Bench("sound", "mic speech.wav");
}
function Brennock_AudioRecordProgress(maxVolume, seconds) {
    if (mode == "wav")
        mark("point recording " + seconds);
}

// A .trem: a watch download; the file is written when the last block is in.
function tremRound() {
    round++;
    Brennock.SessionStart();
    saving = true;
    Brennock.WatchSaveStart("Watch");
}
function Brennock_WatchParametersRead(cause) {
    watchRead = cause == 0;
    if (mode == "trem" && watchRead && !saving)
        tremRound();
}
function Brennock_WatchSaveProgress(percent) {
    if (mode == "trem" && percent >= 90)
        mark("point trem " + round + " " + percent);
}
function Brennock_WatchSaveEnded(cause) {
    if (mode != "trem")
        return;
    mark("saved " + round + " " + cause);
    saving = false;
    Brennock.SessionCancel();
}

// A package: a short tapping test and a questionnaire, then the normal end,
// which commits the NVRAM and packs the session's files.
function packageRound() {
    round++;
    Brennock.SessionStart();
    activity(7, "Quest");
    Brennock.QuestionResponse("Q1-sleep", "A" + round);
    Brennock.ActivityEndNormal();
    activity(2, "Pegs");
    burst(400);
}

function Brennock_ActivityEnded(cause, testID) {
    if (mode == "motr")
        later(motrRound);
}
function Brennock_SessionEnded(cause) {
    if (mode == "trem" && watchRead)
        later(tremRound);
    else if (mode == "package")
        later(packageRound);
    return 1;
}

if (mode == "nvram")
    for (;;) nvramRound();
else if (mode == "motr" || mode == "wav" || mode == "package")
    ({"motr": motrRound, "wav": wavRound, "package": packageRound})[mode]();
else if (mode != "trem")
    fail("unknown mode " + mode);
