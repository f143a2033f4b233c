/* winehold: keeps the Wine prefix's system processes (services, rpcss, ...)
 * up for a test run. The test runner starts it first, with its standard
 * handles on /dev/null, so the system processes start with those too and not
 * with the pipes of whichever test program would otherwise start them (a
 * test runner waits for its pipes to close, and they would stay open). It
 * waits until the Wine server is told to end (wineserver -k). */
#include <windows.h>

int main(void)
{
    Sleep(INFINITE);
    return 0;
}
