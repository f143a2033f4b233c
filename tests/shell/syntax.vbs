Shell.Echo "before"
If x Then
