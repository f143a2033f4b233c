// Every member of the script interface and every event, from JScript in the
// device shell. Each failed check prints a FAIL line.

var failures = 0;
var events = {}, seen = {};
function check(ok, text) { if (!ok) failures++, Shell.Echo("FAIL " + text); }
function on(name, args) { events[name] = (events[name] || 0) + 1, (seen[name] = seen[name] || []).push(args.join(",")); }
function count(name) { return events[name] || 0; }
// Pumps until the event has come n times in all (or ms pass), then checks
// the arguments it came with the n-th time.
function expect(name, n, args, ms) {
    for (var end = Shell.Time + (ms || 10000); count(name) < n && Shell.Time < end;) Shell.Sleep(20);
    check(count(name) >= n, name + " came " + count(name) + " times, not " + n);
    if (args != null && count(name) >= n)
        check(seen[name][n - 1] == args.join(","), name + "(" + seen[name][n - 1] + "), not (" + args.join(",") + ")");
}

var kinds = ("BlinkEnded WatchVisible TimerGo TimerRollover DigitoLeftDownward DigitoLeftUpward DigitoRightDownward " +
    "DigitoRightUpward CapsitLeftDown CapsitLeftUp CapsitRightDown CapsitRightUp PegsMap ActivityEnded " +
    "WatchSaveProgress WatchSaveEnded WatchDataDestroyEnded HC08Reset AudioPlayEnded TimerEnded LidMoved " +
    "AudioRecordEnded AudioRecordProgress SessionEnded DataStoreVisible WatchParametersRead").split(" ");
function handler(name) { return function () { on(name, Array.prototype.slice.call(arguments)); }; }
for (var k = 0; k < kinds.length; k++)
    this["Brennock_" + kinds[k]] = handler(kinds[k]);

check(Brennock.Open() == 1, "Open");
expect("HC08Reset", 1, [1, 0, 0, 1000, 0]);
Brennock.SimHC08Reset(3, 7, 2, 500, 5); expect("HC08Reset", 2, [3, 7, 2, 500, 5]);

check(Brennock.HaveHardware == 1, "HaveHardware");
check(Brennock.FreeStoreMB > 0, "FreeStoreMB");
check(Brennock.PracticeMode == 0 || Brennock.PracticeMode == 1, "PracticeMode");
check(Brennock.InSessionWindow == 0 || Brennock.InSessionWindow == 1, "InSessionWindow");
check(Brennock.GetNextSessionStart().length > 10 && Brennock.GetNextSessionEnd().length > 10, "the next session's window");
check(Brennock.ParameterRead("FIRSTSESSIONDATETIME", "none") != "none", "ParameterRead");
check(Brennock.NVParameterRead("DEVICEID", "NOID") == "0000001234", "NVParameterRead: " + Brennock.NVParameterRead("DEVICEID", "NOID"));
Brennock.NVParameterWrite("NextPictureIndex", "12");
check(Brennock.NVParameterRead("NextPictureIndex", "") == "12", "NVParameterWrite");
Brennock.DebugWrite("surface.js: every member");
Brennock.AssertWrite("surface.js", 1, "every member");
Brennock.MaskWithNoise = 1; check(Brennock.MaskWithNoise == 1, "MaskWithNoise");
Brennock.CurrentFolder = "\\Device Software"; check(Brennock.CurrentFolder == "\\Device Software", "CurrentFolder");

Brennock.SetBacklightPower(1);
Brennock.SetLedState(2, 1);
Brennock.BlinkLed(3, 1, 100); expect("BlinkEnded", 1, [-1, 3]);
Brennock.BlinkLed(4, 50, 100);
Brennock.CancelBlinkLed(4); expect("BlinkEnded", 2, [-1, 4]);
Brennock.TimerStart(1, 0.2); expect("TimerEnded", 1, [0, 1]);
Brennock.TimerStart(2, 60);
Brennock.CancelTimer(2); expect("TimerEnded", 2, [103, 2]);
var lidEvents = count("LidMoved");
Brennock.SimLidMoved(1); expect("LidMoved", lidEvents + 1, [1]);
Brennock.SimDataStoreVisible(1); expect("DataStoreVisible", 1, [1]);

Brennock.SimTimerGo(100); expect("TimerGo", 1, [100]);
Brennock.SimDigitoLeftDownward(50, 7); expect("DigitoLeftDownward", 1, [50, 7]);
Brennock.SimDigitoLeftUpward(51, 8); expect("DigitoLeftUpward", 1, [51, 8]);
Brennock.SimDigitoRightDownward(52, 9); expect("DigitoRightDownward", 1, [52, 9]);
Brennock.SimDigitoRightUpward(53, 10); expect("DigitoRightUpward", 1, [53, 10]);
Brennock.SimCapsitLeftDown(54); expect("CapsitLeftDown", 1, [54]);
Brennock.SimCapsitLeftUp(55); expect("CapsitLeftUp", 1, [55]);
Brennock.SimCapsitRightDown(56); expect("CapsitRightDown", 1, [56]);
Brennock.SimCapsitRightUp(57); expect("CapsitRightUp", 1, [57]);
Brennock.SimPegsMap(58, 3, 12); expect("PegsMap", 1, [58, 3, 12]);
Brennock.SimTimerRollover(); expect("TimerRollover", 1, []);
Brennock.SimWatchSaveProgress(50);

Brennock.SessionStart();
Brennock.ActivityConfig(7, "Quest", 0, 0);
Brennock.ActivityStart(0);
Brennock.QuestionResponse("Q1", "A2");
Brennock.ActivityBeep();
Brennock.ActivityEndNormal(); expect("ActivityEnded", 1, [0, 7]);
Brennock.ActivityConfig(1, "Tap", 0, 0);
Brennock.ActivityStart(1);
Brennock.ActivityCancel(); expect("ActivityEnded", 2, [103, 1]);

Brennock.ActivityConfig(6, "Voice", 0, 0);
Brennock.ActivityStart(0);
Brennock.RecFormat = "Rec22k.wav"; check(Brennock.RecFormat == "\\Device Software\\Rec22k.wav", "RecFormat");
Brennock.RecStartTimeoutS = 5; check(Brennock.RecStartTimeoutS == 5, "RecStartTimeoutS");
Brennock.RecAvgVolumeStart = 250; check(Brennock.RecAvgVolumeStart == 250, "RecAvgVolumeStart");
Brennock.RecAvgVolumeStop = 100; check(Brennock.RecAvgVolumeStop == 100, "RecAvgVolumeStop");
Shell.Bench("sound", "mic speech.wav");
Brennock.AudioRecord(0, 1); expect("AudioRecordEnded", 1, [0]);
check(count("AudioRecordProgress") == 2 && /,1$/.test(seen["AudioRecordProgress"][1]),
      "two progress events, the second at 1 s: " + seen["AudioRecordProgress"]);
Brennock.AudioRecord(0, 10);
Brennock.CancelAudioRecord(); expect("AudioRecordEnded", 2, [103]);
Brennock.ActivityEndNormal(); expect("ActivityEnded", 3, [0, 6]);
Brennock.AudioPlay("blip.wav"); expect("AudioPlayEnded", 1, [0]);
Brennock.AudioPlay("blip.wav");
Brennock.CancelAudioPlay(); expect("AudioPlayEnded", 2, [103]);

expect("WatchVisible", 1, [1], 20000);
expect("WatchParametersRead", 1, [0], 20000);
Brennock.WatchSaveStart("Watch"); expect("WatchSaveEnded", 1, [0], 60000);
check(count("WatchSaveProgress") >= 1 && seen["WatchSaveProgress"][count("WatchSaveProgress") - 1] == "100",
      "save progress to 100: " + seen["WatchSaveProgress"]);
Brennock.WatchSaveStart("Again");
Brennock.WatchSaveCancel(); expect("WatchSaveEnded", 2, [103], 60000);
Brennock.WatchDataDestroyStart(); expect("WatchDataDestroyEnded", 1, [0], 60000);

Brennock.SessionEndNormal(); expect("SessionEnded", 1, [0], 60000);
Brennock.SessionStart();
Brennock.SessionCancel(); expect("SessionEnded", 2, [103]);

// Last, the ones that take things away.
Brennock.SimWatchVisible(0);
Brennock.SetWatchPower(0);
Brennock.Reboot();
Brennock.Close();

var got = [];
for (var name in events) got.push(name);
check(got.length == 26, got.length + " kinds of event received: " + got.sort().join(", "));
Shell.Echo(got.length + " kinds of event received; " + failures + " checks failed");
Shell.Quit(failures == 0 ? 0 : 1);
