' Events through the shell in VBScript: subs with arguments, a handler
' that quits, a control error caught with On Error.
Sub Brennock_TimerEnded(cause, id)
    Shell.Echo "TimerEnded", cause, id
    Shell.Quit 0
End Sub
Sub Brennock_PegsMap(ticks, left, right)
    Shell.Echo "PegsMap", ticks, left, right
End Sub

Shell.Echo "open", Brennock.Open(), Shell.Arguments(0), Shell.ArgumentCount
Brennock.SimPegsMap 99, 6, 1
On Error Resume Next
Brennock.TimerStart 1, "later"
Shell.Echo "type", Hex(Err.Number), Err.Description
Err.Clear
On Error GoTo 0
Brennock.TimerStart 3, 0.1
