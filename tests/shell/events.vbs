' What VBScript adds to events.js: its own types, Sub and Function handlers,
' property syntax, errors through Err.
Sub Brennock_HC08Reset(rev, build, source, hz, post)
    Shell.Echo "HC08Reset", rev, build, source, hz, post, TypeName(hz)
End Sub
Sub Brennock_PegsMap(ticks, left, right)
    Shell.Echo "PegsMap", ticks, left, right
End Sub
Sub Brennock_DigitoRightUpward(ticks, delta)
    Shell.Echo "DigitoRightUpward", ticks, delta, TypeName(ticks)
End Sub
Function Brennock_SessionEnded(cause)
    Shell.Echo "SessionEnded", cause
    Brennock.TimerStart 3, 0.1
    Brennock_SessionEnded = 1
End Function
Sub Brennock_TimerEnded(cause, id)
    Shell.Echo "TimerEnded", cause, id
    Shell.Quit 0
End Sub

Dim ticks, index
Shell.Echo "open", Brennock.Open(), Shell.Arguments(0), Shell.ArgumentCount
ticks = 99
index = "13"
Brennock.SimPegsMap ticks, 6, 1
Brennock.SimDigitoRightUpward 70000, 10
Brennock.SimHC08Reset 3, 7, 2, 500, 5
Brennock.NVParameterWrite "NextPictureIndex", index
Brennock.RecStartTimeoutS = ticks - 94
Shell.Echo "values", Brennock.NVParameterRead("NextPictureIndex", ""), Brennock.RecStartTimeoutS
On Error Resume Next
Brennock.TimerStart 1, "later"
Shell.Echo "type", Hex(Err.Number), Err.Description
Err.Clear
Brennock.PracticeMode = 1
Shell.Echo "put", Hex(Err.Number)
On Error GoTo 0
Brennock.SessionStart
Brennock.SessionCancel
