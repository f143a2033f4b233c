/* winehold: keeps the Wine prefix's system processes (services, rpcss, ...)
 * up for a test run. The test runner starts it first, with its standard
 * handles on /dev/null, so the system processes start with those too and not
 * with the pipes of whichever test program would otherwise start them (a
 * test runner waits for its pipes to close, and they would stay open). It
 * waits until the Wine server is told to end (wineserver -k) or it is killed.
 *
 *   winehold [READY-FILE]
 *
 * With a file name (a Windows path, e.g. Z:\tmp\x\holder.ready), it makes
 * that file once it runs: by then the prefix's system processes have started
 * (a new process waits for them), so the device manager has made its
 * dosdevices links (COM1 to /dev/ttyS0 where that exists) and will not make
 * them again while the server stays up. scripts/simrun waits for the file
 * before it links the simulators' ports. */
#include <windows.h>

int main(int argc, char** argv)
{
    if (argc > 1) {
        HANDLE h = CreateFileA(argv[1], GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
        if (h == INVALID_HANDLE_VALUE)
            return 1;
        CloseHandle(h);
    }
    Sleep(INFINITE);
    return 0;
}
