' Blinks LED 3 and waits for the end of the blink and of a timer, serving
' events while it sleeps.
'   scripts/simrun --disk-from examples/disk --show-panel -- build/brennock-shell.exe examples/shell/blink.vbs 4
Dim blinks
blinks = 3
If Shell.ArgumentCount > 0 Then blinks = CInt(Shell.Arguments(0))

Sub Brennock_BlinkEnded(endCauseID, ledID)
    Shell.Echo "LED " & ledID & " done at " & Round(Shell.Time) & " ms"
End Sub

Sub Brennock_TimerEnded(endCauseID, timerID)
    Shell.Echo "timer " & timerID & " ended, cause " & endCauseID
    Brennock.Close
    Shell.Quit 0
End Sub

If Brennock.Open() <> 1 Then
    Shell.Echo "Open failed"
    Shell.Quit 1
End If
Brennock.BlinkLed 3, blinks, 400
Shell.Sleep 100
Shell.Echo "blinking " & blinks & " times"
Brennock.TimerStart 1, 0.4 * blinks + 1
