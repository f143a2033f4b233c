// session.js: a short session as the device's UI runs one. Starts a session,
// runs a tapping test and a questionnaire, ends the session normally (which
// packs the session's files into one encrypted, signed ".ezip" in
// "\Hard Disk\Device Data").
//
//   scripts/simrun --disk DISK -- cscript //nologo examples/session.js
//
// The disk needs params.txt, a configuration block provisioned for a study
// ("\Hard Disk\flashblock.bin", made by tools/provision) and the compression
// library at "\Device Software\MarrowbyGzip.dll"; scripts/setup makes one.
// Without the library the files are copied to "Device Data" as they are.

var control = new ActiveXObject("BrennockControl.Brennock");
if (control.Open() != 1) {
    WScript.Echo("Open() failed: is the disk provisioned? (see README)");
    WScript.Quit(1);
}

function pause(ms) {
    var until = new Date().getTime() + ms;
    while (new Date().getTime() < until) {}
}

control.SessionStart();
WScript.Echo("session started on device " + control.NVParameterRead("DEVICEID", "NOID"));

// A tapping test: everything the microcontroller sends while it runs is
// recorded into its ".motr" file.
control.ActivityConfig(1, "Tap", 0, 0);
control.ActivityStart(0);
pause(500);
control.ActivityEndNormal();
WScript.Echo("tapping test recorded");

// The questionnaire: its answers are saved as a small text file.
control.ActivityConfig(7, "Quest", 0, 0);
control.ActivityStart(0);
control.QuestionResponse("Q1-sleep", "A3");
control.QuestionResponse("Q2-tremor", "A1");
control.ActivityEndNormal();
WScript.Echo("questionnaire recorded");

try {
    control.SessionEndNormal();
    WScript.Echo("session ended: its files are packed");
} catch (e) {
    WScript.Echo("session end failed (cause 102): see the debug output");
}
control.Close();

