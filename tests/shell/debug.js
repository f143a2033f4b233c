// A method called before Open writes its guard line on the debug output;
// the control is then left open for the shell to close.
try { Brennock.SessionStart(); } catch (e) { }
Brennock.Open();
Shell.Quit(0);
