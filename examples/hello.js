// hello.js: the main job. Opens the control on a provisioned device disk and
// shows what a UI script sees of it: the provisioning parameters, the NVRAM
// values, practice mode and the next session window.
//
//   scripts/winrun --disk-from examples/disk cscript //nologo examples/hello.js
//
// The disk needs "\Hard Disk\params.txt" with every key (examples/disk has
// one); without it Open reports 0.

var control = new ActiveXObject("BrennockControl.Brennock");
WScript.Echo("created BrennockControl.Brennock");

function hex(n) { return "0x" + (n >>> 0).toString(16).toUpperCase(); }

try {
    control.SessionStart();
    WScript.Echo("SessionStart before Open: succeeded (unexpected)");
} catch (e) {
    WScript.Echo("SessionStart before Open: failed with " + hex(e.number) + ", as it should");
}

var opened = control.Open();
WScript.Echo("Open() returned " + opened);
if (opened != 1) {
    WScript.Echo("the device disk is not provisioned: it needs \\Hard Disk\\params.txt (see README)");
    WScript.Quit(1);
}

WScript.Echo("study site:         " + control.ParameterRead("StudySite", "(none)"));
WScript.Echo("device ID:          " + control.NVParameterRead("DEVICEID", "NOID"));
WScript.Echo("previous session:   " + control.NVParameterRead("PrevSessionDateTime", "(none)"));
WScript.Echo("practice mode:      " + (control.PracticeMode == 1 ? "yes" : "no"));
WScript.Echo("next session opens: " + control.GetNextSessionStart());
WScript.Echo("next session ends:  " + control.GetNextSessionEnd());
WScript.Echo("in the window now:  " + (control.InSessionWindow == 1 ? "yes" : "no"));
WScript.Echo("free store:         " + control.FreeStoreMB + " MB");
// The microcontroller answered its reset during Open; switch its noise
// masking on (the simulator logs the command it received).
control.MaskWithNoise = 1;
WScript.Echo("noise masking:      " + (control.MaskWithNoise == 1 ? "on" : "off"));

control.DebugWrite("hello from hello.js");
control.Close();
WScript.Echo("Close() done");
