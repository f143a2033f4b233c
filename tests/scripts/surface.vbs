' The script surface from VBScript in the device shell: what the language
' adds to the walk of surface.js (its own argument types: Integer, Long,
' Double, a variable by reference; Sub and Function handlers; property
' syntax; the control's errors through Err). Run by shell_surface_test.sh.
Option Explicit

Dim names, counts(10), seen(10), failures
names = Array("HC08Reset", "TimerGo", "TimerRollover", "DigitoRightUpward", "PegsMap", "BlinkEnded", _
    "TimerEnded", "LidMoved", "ActivityEnded", "SessionEnded", "DataStoreVisible")
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

' Pumps until the event has come n times in all (or 10 s pass), then checks
' the arguments it came with the n-th time.
Sub Expect(name, n, args)
    Dim i, deadline, parts, nth
    i = Slot(name)
    deadline = Shell.Time + 10000
    Do While counts(i) < n And Shell.Time < deadline
        Shell.Sleep 20
    Loop
    Check counts(i) >= n, name & " came " & counts(i) & " times, not " & n
    If counts(i) >= n Then
        parts = Split(Mid(seen(i), 2), "|")
        nth = parts(n - 1)
        Check nth = args, name & "(" & nth & "), not (" & args & ")"
    End If
End Sub

Sub MustFail(what)
    Check Err.Number <> 0, what & " did not fail"
    Err.Clear
End Sub

Sub Brennock_HC08Reset(rev, build, source, hz, post) : Got "HC08Reset", Array(rev, build, source, hz, post) : End Sub
Sub Brennock_TimerGo(t) : Got "TimerGo", Array(t) : End Sub
Sub Brennock_TimerRollover() : Got "TimerRollover", Array() : End Sub
Sub Brennock_DigitoRightUpward(t, d) : Got "DigitoRightUpward", Array(t, d) : End Sub
Sub Brennock_PegsMap(t, l, r) : Got "PegsMap", Array(t, l, r) : End Sub
Sub Brennock_BlinkEnded(cause, led) : Got "BlinkEnded", Array(cause, led) : End Sub
Sub Brennock_TimerEnded(cause, id) : Got "TimerEnded", Array(cause, id) : End Sub
Sub Brennock_LidMoved(isOpen) : Got "LidMoved", Array(isOpen) : End Sub
Sub Brennock_ActivityEnded(cause, id) : Got "ActivityEnded", Array(cause, id) : End Sub
Function Brennock_SessionEnded(cause)
    Got "SessionEnded", Array(cause)
    Brennock_SessionEnded = 1
End Function
Function Brennock_DataStoreVisible(v)
    Got "DataStoreVisible", Array(v)
    Brennock_DataStoreVisible = 0
End Function

Check Brennock.Open() = 1, "Open"
Expect "HC08Reset", 1, "1,0,0,1000,0"
Brennock.SimHC08Reset 3, 7, 2, 500, 5
Expect "HC08Reset", 2, "3,7,2,500,5"
Check Brennock.HaveHardware = 1, "HaveHardware"
On Error Resume Next
Brennock.PracticeMode = 1 : MustFail "setting PracticeMode"
Brennock.TimerStart 1 : MustFail "a call with an argument missing"
Brennock.SetLedState "six", 1 : MustFail "a call with a word for a number"
On Error GoTo 0

Dim index
index = "13"
Brennock.NVParameterWrite "NextPictureIndex", index
Check Brennock.NVParameterRead("NextPictureIndex", "") = "13", "NVParameterWrite"
Brennock.MaskWithNoise = 1
Check Brennock.MaskWithNoise = 1, "MaskWithNoise"
Brennock.CurrentFolder = "\Device Software"
Check Brennock.CurrentFolder = "\Device Software", "CurrentFolder"
Brennock.RecFormat = "Rec22k.wav"
Check Brennock.RecFormat = "\Device Software\Rec22k.wav", "RecFormat"
Brennock.RecStartTimeoutS = 5
Check Brennock.RecStartTimeoutS = 5, "RecStartTimeoutS"

Brennock.SimTimerGo 100 : Expect "TimerGo", 1, "100"
Brennock.SimDigitoRightUpward 70000, 10 : Expect "DigitoRightUpward", 1, "70000,10"
Brennock.SimPegsMap 58, 3, 12 : Expect "PegsMap", 1, "58,3,12"
Brennock.SimTimerRollover : Expect "TimerRollover", 1, ""
Brennock.BlinkLed 3, 1, 100 : Expect "BlinkEnded", 1, "-1,3"
Brennock.TimerStart 1, 0.2 : Expect "TimerEnded", 1, "0,1"
Brennock.TimerStart 2, 60
Brennock.CancelTimer 2 : Expect "TimerEnded", 2, "103,2"
Dim lid
lid = counts(Slot("LidMoved"))
Brennock.SimLidMoved 1 : Expect "LidMoved", lid + 1, "1"
Brennock.SimDataStoreVisible 1 : Expect "DataStoreVisible", 1, "1"

Brennock.SessionStart
Brennock.ActivityConfig 7, "Quest", 0, 0
Brennock.ActivityStart 0
Brennock.QuestionResponse "Q1", "A2"
Brennock.ActivityEndNormal : Expect "ActivityEnded", 1, "0,7"
Brennock.SessionCancel : Expect "SessionEnded", 1, "103"

Brennock.Close
On Error Resume Next
Brennock.DebugWrite "after Close" : MustFail "a member after Close"
On Error GoTo 0
Shell.Echo failures & " checks failed"
If failures = 0 Then Shell.Quit 0 Else Shell.Quit 1
