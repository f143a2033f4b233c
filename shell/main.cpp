// brennock-shell.exe: the device's script host. See ShellOptions.h for the
// command line and ShellObject.h for what a script gets besides the control.
#include "shell/OutputChannel.h"
#include "shell/ShellApp.h"
#include "shell/ShellOptions.h"
#include "shell/ShellRun.h"

#include <windows.h>

int wmain(int argc, wchar_t** argv)
{
    // A crash ends the process; it never waits on a dialog.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);

    ShellOptions options;
    if (!options.Parse(std::vector<std::wstring>(argv + 1, argv + argc))) {
        StdErr().WriteLine(L"brennock-shell: " + options.Error() + L" (see --help)");
        return kExitUsage;
    }
    if (options.help) {
        StdOut().WriteLine(ShellOptions::Usage());
        return kExitOk;
    }
    return ShellApp(options).Run();
}
