/*
 * The bench's serial ports are pseudo-terminals, and a pseudo-terminal has no
 * modem lines: TIOCMGET and friends fail on it. Wine's WaitCommEvent reads the
 * modem status on every look at the port, and when that fails it completes
 * the wait at once with an empty event mask instead of waiting for a
 * character. A reader that blocks in WaitCommEvent would then wake every few
 * milliseconds with nothing to do.
 *
 * Preloaded into the Wine processes of a bench run (scripts/winrun), this
 * gives pseudo-terminals the modem lines of a plain three-wire cable: CTS,
 * DSR and carrier always on, DTR and RTS writes accepted and ignored. Every
 * other device and request goes through untouched.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>

/* Unix98 pseudo-terminal slaves have majors 136 to 143. */
static int is_pty_slave(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode))
        return 0;
    unsigned maj = major(st.st_rdev);
    return maj >= 136 && maj <= 143;
}

int ioctl(int fd, unsigned long request, ...)
{
    static int (*real_ioctl)(int, unsigned long, ...);
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (real_ioctl == NULL)
        real_ioctl = (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");

    int saved = errno;
    int result = real_ioctl(fd, request, arg);
    if (result == -1 &&
        (request == TIOCMGET || request == TIOCMSET || request == TIOCMBIS || request == TIOCMBIC) &&
        is_pty_slave(fd)) {
        if (request == TIOCMGET && arg != NULL)
            *(int*)arg = TIOCM_CTS | TIOCM_DSR | TIOCM_CAR;
        errno = saved;
        return 0;
    }
    return result;
}
