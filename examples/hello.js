// hello.js: the smallest UI script. It creates the control, shows that a
// method needing the device fails before Open, opens the control, writes to
// the debug log and the assert file, and closes it again.
//
//   scripts/winrun cscript //nologo examples/hello.js

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

control.DebugWrite("hello from hello.js");
WScript.Echo("DebugWrite(\"hello from hello.js\") done");

control.AssertWrite("hello.js", 27, "the main job was here");
WScript.Echo("AssertWrite(\"hello.js\", 27, ...) appended a line to \\Hard Disk\\asserts.txt");

control.Close();
WScript.Echo("Close() done");

// Show what the assert file holds now.
var fso = new ActiveXObject("Scripting.FileSystemObject");
var path = "\\Hard Disk\\asserts.txt";
if (fso.FileExists(path)) {
    var f = fso.OpenTextFile(path, 1);
    WScript.Echo("\\Hard Disk\\asserts.txt:");
    while (!f.AtEndOfStream) WScript.Echo("  " + f.ReadLine());
    f.Close();
} else {
    WScript.Echo("\\Hard Disk\\asserts.txt is missing");
}
