// Never quits: the time limit ends it. With "busy", it never returns to the
// message loop either.
Shell.Echo("waiting");
if (Shell.ArgumentCount > 0 && Shell.Arguments(0) == "busy")
    for (;;) {}
