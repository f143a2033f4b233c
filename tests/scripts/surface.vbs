' Every member of the control's script interface called, and every event
' received with its arguments checked, from VBScript in the device shell.
' The same walk as surface.js; run by tests/scripts/shell_surface_test.sh.
Option Explicit

Dim names, counts(25), seen(25), failures
names = Array("BlinkEnded", "WatchVisible", "TimerGo", "TimerRollover", "DigitoLeftDownward", _
    "DigitoLeftUpward", "DigitoRightDownward", "DigitoRightUpward", "CapsitLeftDown", "CapsitLeftUp", _
    "CapsitRightDown", "CapsitRightUp", "PegsMap", "ActivityEnded", "WatchSaveProgress", "WatchSaveEnded", _
    "WatchDataDestroyEnded", "HC08Reset", "AudioPlayEnded", "TimerEnded", "LidMoved", "AudioRecordEnded", _
    "AudioRecordProgress", "SessionEnded", "DataStoreVisible", "WatchParametersRead")
failures = 0

Function Slot(name)
    Dim i
    For i = 0 To UBound(names)
        If names(i) = name Then Slot = i : Exit Function
    Next
    Slot = -1
End Function

Sub Check(ok, text)
    If Not ok Then
        failures = failures + 1
        Shell.Echo "FAIL " & text
    End If
End Sub

Sub Got(name, args)
    Dim i, a, text
    i = Slot(name)
    counts(i) = counts(i) + 1
    text = ""
    For Each a In args
        If text <> "" Then text = text & ","
        text = text & CStr(a)
    Next
    seen(i) = seen(i) & "|" & text
End Sub

' Pumps until the event has come n times in all (or ms pass), then checks the
' arguments it came with the n-th time ("-" checks none).
Sub Expect(name, n, args, ms)
    Dim i, deadline, parts, nth
    i = Slot(name)
    deadline = Shell.Time + ms
    Do While counts(i) < n And Shell.Time < deadline
        Shell.Sleep 20
    Loop
    Check counts(i) >= n, name & " came " & counts(i) & " times, not " & n
    If args <> "-" And counts(i) >= n Then
        parts = Split(Mid(seen(i), 2), "|")
        nth = parts(n - 1)
        Check nth = args, name & "(" & nth & "), not (" & args & ")"
    End If
End Sub

Sub Brennock_BlinkEnded(cause, led) : Got "BlinkEnded", Array(cause, led) : End Sub
Sub Brennock_WatchVisible(v) : Got "WatchVisible", Array(v) : End Sub
Sub Brennock_TimerGo(t) : Got "TimerGo", Array(t) : End Sub
Sub Brennock_TimerRollover() : Got "TimerRollover", Array() : End Sub
Sub Brennock_DigitoLeftDownward(t, d) : Got "DigitoLeftDownward", Array(t, d) : End Sub
Sub Brennock_DigitoLeftUpward(t, d) : Got "DigitoLeftUpward", Array(t, d) : End Sub
Sub Brennock_DigitoRightDownward(t, d) : Got "DigitoRightDownward", Array(t, d) : End Sub
Sub Brennock_DigitoRightUpward(t, d) : Got "DigitoRightUpward", Array(t, d) : End Sub
Sub Brennock_CapsitLeftDown(t) : Got "CapsitLeftDown", Array(t) : End Sub
Sub Brennock_CapsitLeftUp(t) : Got "CapsitLeftUp", Array(t) : End Sub
Sub Brennock_CapsitRightDown(t) : Got "CapsitRightDown", Array(t) : End Sub
Sub Brennock_CapsitRightUp(t) : Got "CapsitRightUp", Array(t) : End Sub
Sub Brennock_PegsMap(t, l, r) : Got "PegsMap", Array(t, l, r) : End Sub
Sub Brennock_ActivityEnded(cause, id) : Got "ActivityEnded", Array(cause, id) : End Sub
Sub Brennock_WatchSaveProgress(p) : Got "WatchSaveProgress", Array(p) : End Sub
Sub Brennock_WatchSaveEnded(cause) : Got "WatchSaveEnded", Array(cause) : End Sub
Sub Brennock_WatchDataDestroyEnded(cause) : Got "WatchDataDestroyEnded", Array(cause) : End Sub
Sub Brennock_HC08Reset(rev, build, source, hz, post) : Got "HC08Reset", Array(rev, build, source, hz, post) : End Sub
Sub Brennock_AudioPlayEnded(cause) : Got "AudioPlayEnded", Array(cause) : End Sub
Sub Brennock_TimerEnded(cause, id) : Got "TimerEnded", Array(cause, id) : End Sub
Sub Brennock_LidMoved(isOpen) : Got "LidMoved", Array(isOpen) : End Sub
Sub Brennock_AudioRecordEnded(cause) : Got "AudioRecordEnded", Array(cause) : End Sub
Sub Brennock_AudioRecordProgress(v, s) : Got "AudioRecordProgress", Array(v, s) : End Sub
Function Brennock_SessionEnded(cause)
    Got "SessionEnded", Array(cause)
    Brennock_SessionEnded = 1
End Function
Function Brennock_DataStoreVisible(v)
    Got "DataStoreVisible", Array(v)
    Brennock_DataStoreVisible = 0
End Function
Sub Brennock_WatchParametersRead(cause) : Got "WatchParametersRead", Array(cause) : End Sub

' A call that must fail: the control's error reaches the script.
Sub MustFail(what)
    Check Err.Number <> 0, what & " did not fail"
    Err.Clear
End Sub

' Opening: the microcontroller's reset note.
Check Brennock.Open() = 1, "Open"
Expect "HC08Reset", 1, "1,0,0,1000,0", 10000
Brennock.SimHC08Reset 3, 7, 2, 500, 5
Expect "HC08Reset", 2, "3,7,2,500,5", 10000

' Facts and settings.
Check Brennock.HaveHardware = 1, "HaveHardware"
Check Brennock.FreeStoreMB > 0, "FreeStoreMB"
Check Brennock.PracticeMode = 0 Or Brennock.PracticeMode = 1, "PracticeMode"
On Error Resume Next
Brennock.PracticeMode = 1 : MustFail "setting PracticeMode"
Brennock.SimWatchDataDestroyEnded 0 : MustFail "SimWatchDataDestroyEnded"
Brennock.TimerStart 1 : MustFail "a call with an argument missing"
Brennock.SetLedState "six", 1 : MustFail "a call with a word for a number"
On Error GoTo 0
Check Brennock.InSessionWindow = 0 Or Brennock.InSessionWindow = 1, "InSessionWindow"
Check Len(Brennock.GetNextSessionStart()) > 10 And Len(Brennock.GetNextSessionEnd()) > 10, "the next session's window"
Check Brennock.ParameterRead("FIRSTSESSIONDATETIME", "none") <> "none", "ParameterRead"
Check Brennock.NVParameterRead("DEVICEID", "NOID") = "0000001234", "NVParameterRead"
Brennock.NVParameterWrite "NextPictureIndex", "13"
Check Brennock.NVParameterRead("NextPictureIndex", "") = "13", "NVParameterWrite"
Brennock.DebugWrite "surface.vbs: every member"
Brennock.AssertWrite "surface.vbs", 1, "every member"
Brennock.MaskWithNoise = 1
Check Brennock.MaskWithNoise = 1, "MaskWithNoise"
Brennock.CurrentFolder = "\Device Software"
Check Brennock.CurrentFolder = "\Device Software", "CurrentFolder"

' The panel.
Brennock.SetBacklightPower 1
Brennock.SetLedState 2, 1
Brennock.BlinkLed 3, 1, 100
Expect "BlinkEnded", 1, "-1,3", 10000
Brennock.BlinkLed 4, 50, 100
Brennock.CancelBlinkLed 4
Expect "BlinkEnded", 2, "-1,4", 10000
Brennock.TimerStart 1, 0.2
Expect "TimerEnded", 1, "0,1", 10000
Brennock.TimerStart 2, 60
Brennock.CancelTimer 2
Expect "TimerEnded", 2, "103,2", 10000
Dim before
before = counts(Slot("LidMoved"))
Brennock.SimLidMoved 1
Expect "LidMoved", before + 1, "1", 10000
Brennock.SimDataStoreVisible 1
Expect "DataStoreVisible", 1, "1", 10000

' Simulated microcontroller packets.
Brennock.SimTimerGo 100 : Expect "TimerGo", 1, "100", 10000
Brennock.SimDigitoLeftDownward 50, 7 : Expect "DigitoLeftDownward", 1, "50,7", 10000
Brennock.SimDigitoLeftUpward 51, 8 : Expect "DigitoLeftUpward", 1, "51,8", 10000
Brennock.SimDigitoRightDownward 52, 9 : Expect "DigitoRightDownward", 1, "52,9", 10000
Brennock.SimDigitoRightUpward 53, 10 : Expect "DigitoRightUpward", 1, "53,10", 10000
Brennock.SimCapsitLeftDown 54 : Expect "CapsitLeftDown", 1, "54", 10000
Brennock.SimCapsitLeftUp 55 : Expect "CapsitLeftUp", 1, "55", 10000
Brennock.SimCapsitRightDown 56 : Expect "CapsitRightDown", 1, "56", 10000
Brennock.SimCapsitRightUp 57 : Expect "CapsitRightUp", 1, "57", 10000
Brennock.SimPegsMap 58, 3, 12 : Expect "PegsMap", 1, "58,3,12", 10000
Brennock.SimTimerRollover : Expect "TimerRollover", 1, "", 10000
Brennock.SimWatchSaveProgress 50

' A session with activities.
Brennock.SessionStart
Brennock.ActivityConfig 7, "Quest", 0, 0
Brennock.ActivityStart 0
Brennock.QuestionResponse "Q1", "A2"
Brennock.ActivityBeep
Brennock.ActivityEndNormal
Expect "ActivityEnded", 1, "0,7", 10000
Brennock.ActivityConfig 1, "Tap", 0, 0
Brennock.ActivityStart 1
Brennock.ActivityCancel
Expect "ActivityEnded", 2, "103,1", 10000

' Sound.
Brennock.ActivityConfig 6, "Voice", 0, 0
Brennock.ActivityStart 0
Brennock.RecFormat = "Rec22k.wav"
Check Brennock.RecFormat = "\Device Software\Rec22k.wav", "RecFormat"
Brennock.RecStartTimeoutS = 5
Check Brennock.RecStartTimeoutS = 5, "RecStartTimeoutS"
Brennock.RecAvgVolumeStart = 250
Check Brennock.RecAvgVolumeStart = 250, "RecAvgVolumeStart"
Brennock.RecAvgVolumeStop = 100
Check Brennock.RecAvgVolumeStop = 100, "RecAvgVolumeStop"
Shell.Bench "sound", "mic speech.wav"
Brennock.AudioRecord 0, 1
Expect "AudioRecordEnded", 1, "0", 10000
Expect "AudioRecordProgress", 2, "-", 1
Brennock.AudioRecord 0, 10
Brennock.CancelAudioRecord
Expect "AudioRecordEnded", 2, "103", 10000
Brennock.ActivityEndNormal
Expect "ActivityEnded", 3, "0,6", 10000
Brennock.AudioPlay "blip.wav"
Expect "AudioPlayEnded", 1, "0", 10000
Brennock.AudioPlay "blip.wav"
Brennock.CancelAudioPlay
Expect "AudioPlayEnded", 2, "103", 10000

' The watch.
Expect "WatchVisible", 1, "1", 20000
Expect "WatchParametersRead", 1, "0", 20000
Brennock.WatchSaveStart "Watch"
Expect "WatchSaveEnded", 1, "0", 60000
Check Right(seen(Slot("WatchSaveProgress")), 4) = "|100", "save progress to 100: " & seen(Slot("WatchSaveProgress"))
Brennock.WatchSaveStart "Again"
Brennock.WatchSaveCancel
Expect "WatchSaveEnded", 2, "103", 60000
Brennock.WatchDataDestroyStart
Expect "WatchDataDestroyEnded", 1, "0", 60000

' The session's ends.
Brennock.SessionEndNormal
Expect "SessionEnded", 1, "0", 60000
Brennock.SessionStart
Brennock.SessionCancel
Expect "SessionEnded", 2, "103", 10000

Brennock.SimWatchVisible 0
Brennock.SetWatchPower 0
Brennock.Reboot
Brennock.Close
On Error Resume Next
Brennock.DebugWrite "after Close" : MustFail "a member after Close"
On Error GoTo 0

Dim i, missing
missing = ""
For i = 0 To UBound(names)
    If counts(i) = 0 Then missing = missing & " " & names(i)
Next
Check missing = "", "events never received:" & missing
Dim kinds
kinds = UBound(names) + 1
Shell.Echo kinds & " kinds of event; " & failures & " checks failed"
If failures = 0 Then Shell.Quit 0 Else Shell.Quit 1
