/* Preloaded into the aarch64 test programs that scripts/test-aarch64.sh
 * runs under qemu-user (see the script for why).
 *
 * qemu-user passes only the first 4 bytes of the legacy termio record
 * through the TCGETA/TCSETA/TCSETAW/TCSETAF requests, so the library's
 * auxiliary-port mode would read and write uninitialised emulator memory.
 * This ioctl carries out those four requests as the Linux kernel does (low
 * 16 bits of each mode word, the line discipline and the first NCC control
 * characters) through tcgetattr/tcsetattr, which qemu translates in full;
 * every other request goes to the kernel unchanged.
 *
 * Built twice: for aarch64 (the shim) and for the host, where it is an
 * empty library, so that LD_PRELOAD through $LIB also suits the host
 * programs (a shell) that a test starts. */
#if defined(__aarch64__)
#define _GNU_SOURCE
#include <stdarg.h>
#include <string.h>
#include <termio.h>
#include <termios.h>
#include <unistd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

static unsigned int low16(unsigned int word, unsigned short value) {
    return (word & 0xffff0000u) | value;
}

int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    struct termios t;
    switch (request) {
    case TCGETA: {
        struct termio r;
        if (tcgetattr(fd, &t) != 0) return -1;
        memset(&r, 0, sizeof r);
        r.c_iflag = (unsigned short)t.c_iflag;
        r.c_oflag = (unsigned short)t.c_oflag;
        r.c_cflag = (unsigned short)t.c_cflag;
        r.c_lflag = (unsigned short)t.c_lflag;
        r.c_line = t.c_line;
        memcpy(r.c_cc, t.c_cc, NCC);
        memcpy(arg, &r, sizeof r);
        return 0;
    }
    case TCSETA:
    case TCSETAW:
    case TCSETAF: {
        struct termio n;
        memcpy(&n, arg, sizeof n);
        if (tcgetattr(fd, &t) != 0) return -1;
        t.c_iflag = low16(t.c_iflag, n.c_iflag);
        t.c_oflag = low16(t.c_oflag, n.c_oflag);
        t.c_cflag = low16(t.c_cflag, n.c_cflag);
        t.c_lflag = low16(t.c_lflag, n.c_lflag);
        t.c_line = n.c_line;
        memcpy(t.c_cc, n.c_cc, NCC);
        return tcsetattr(fd, request == TCSETA ? TCSANOW : request == TCSETAW ? TCSADRAIN : TCSAFLUSH, &t);
    }
    default:
        return (int)syscall(SYS_ioctl, fd, request, arg);
    }
}
#else
/* The host's empty stand-in. */
void kolt_termio_shim_host(void) {}
#endif
