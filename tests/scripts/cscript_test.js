// The control driven by name from Wine's cscript; exits with the failures.
var failures = 0, checks = 0;
function check(ok, what) { checks++, failures += ok ? 0 : 1, WScript.Echo((ok ? "ok   " : "FAIL ") + what); }
function fails(f) { try { f(); return false; } catch (e) { return (e.number >>> 0) == 0x80004005; } }

var c = new ActiveXObject("BrennockControl.Brennock");
check(new ActiveXObject("BrennockControl.Brennock.1") != null, "created by both ProgIDs");
check(fails(function () { c.SessionStart(); }), "SessionStart before Open fails with E_FAIL");
c.AssertWrite("cscript_test.js", -7, "before open");   // works before Open
c.SimWatchSaveProgress(5);                             // and so does this

check(c.Open() == 1, "Open() returns 1");
check(c.ParameterRead("studysite", "none") == "Bench 1", "ParameterRead finds a key in any case");
check(c.ParameterRead("NoSuchKey", "dflt") == "dflt", "ParameterRead gives the default for a missing key");
check(c.NVParameterRead("DEVICEID", "NOID") == "0000065535", "a blank NVRAM reads as device 0000065535");
c.CurrentFolder = "Tests";
check(c.CurrentFolder == "\\Device Software\\Tests", "CurrentFolder resolves a relative folder");
c.AssertWrite("cscript_test.js", 12, "after open");
c.Close();
check(fails(function () { c.DebugWrite("late"); }), "DebugWrite after Close fails");
c.Close();

var text = new ActiveXObject("Scripting.FileSystemObject").OpenTextFile("\\Hard Disk\\asserts.txt", 1).ReadAll();
check(/^\w{3} \d\d \w{3} \d{4} \d\d:\d\d:\d\d cscript_test\.js line -7 before open\r\n/.test(text),
      "first assert line has the layout");
check(/ cscript_test\.js line 12 after open\r\n$/.test(text), "second assert line appended");
WScript.Echo(checks - failures + " passed, " + failures + " failed");
WScript.Quit(failures);
