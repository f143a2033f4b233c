' session.vbs: a short session in VBScript, in the device shell: a tapping
' test whose taps the microcontroller simulator plays when the test's timer
' goes, a questionnaire, and the normal end that packs the files.
'
'   scripts/simrun --disk DISK -- build/brennock-shell.exe --timeout 60 examples/shell/session.vbs
'
' The disk is one scripts/setup makes (build/bench-disk), or any provisioned
' one (see README).
Option Explicit

Dim taps : taps = 0

Sub Say(text)
    Shell.Echo FormatNumber(Shell.Time / 1000, 2) & "  " & text
End Sub

Sub Brennock_TimerGo(ticksAtGo)
    Dim i
    Say "  event TimerGo(" & ticksAtGo & "): the subject taps"
    For i = 1 To 3
        Shell.Bench "mcu", "wait 150"
        Shell.Bench "mcu", "digito left down " & (100 + i)
        Shell.Bench "mcu", "wait 50"
        Shell.Bench "mcu", "digito left up 50"
    Next
End Sub

Sub Brennock_DigitoLeftDownward(ticksSinceGo, deltaTicks)
    Say "  event DigitoLeftDownward(" & ticksSinceGo & ", " & deltaTicks & ")"
End Sub

Sub Brennock_DigitoLeftUpward(ticksSinceGo, deltaTicks)
    taps = taps + 1
    Say "  event DigitoLeftUpward(" & ticksSinceGo & ", " & deltaTicks & ")"
    If taps = 3 Then Brennock.ActivityEndNormal
End Sub

Sub Brennock_ActivityEnded(cause, testID)
    Say "  event ActivityEnded(" & cause & ", " & testID & ")"
    If testID = 1 Then
        Say "questionnaire"
        Brennock.ActivityConfig 7, "Quest", 0, 0
        Brennock.ActivityStart 0
        Brennock.QuestionResponse "Q1-sleep", "A2"
        Brennock.ActivityEndNormal
    Else
        Say "ending the session"
        Brennock.SessionEndNormal
    End If
End Sub

Function Brennock_SessionEnded(cause)
    Say "  event SessionEnded(" & cause & ")"
    Brennock.Close
    If cause = 0 Then Shell.Quit 0 Else Shell.Quit 1
    Brennock_SessionEnded = 1
End Function

If Brennock.Open() <> 1 Then
    Say "the control did not open (is the disk provisioned? see README)"
    Shell.Quit 1
End If
Brennock.SessionStart
Say "tapping test: three taps of the left finger"
Brennock.ActivityConfig 1, "Tap", 30, 0
Brennock.ActivityStart 1
