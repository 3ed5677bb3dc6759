#!/usr/bin/env bash
# Cross-builds the library, the simulator and the tests for Linux on 64-bit
# Arm (aarch64) with Debian's cross toolchain and arm64 multiarch packages,
# checks the shared object (architecture, SONAME, dependencies), then runs
# the whole test suite under qemu-user on this machine.
#
# Environment: KOLT_AARCH64_BUILD_DIR (default build/aarch64 in the tree),
# KOLT_JOBS (parallel build and test jobs), KOLT_AARCH64_TEST_TIMEOUT
# (seconds, for tests that set no time-out of their own).
source "$(dirname "$0")/common.sh"

cd "$KOLT_ROOT"
start=$(date +%s)
build="${KOLT_AARCH64_BUILD_DIR:-$KOLT_ROOT/build/aarch64}"
jobs="$KOLT_JOBS"
[ "$jobs" -gt 2 ] 2>/dev/null && jobs=2
triple=aarch64-linux-gnu

# ---------------------------------------------------------------------------
echo "== packages for the aarch64 cross build"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    echo "== adding the arm64 architecture"
    $sudo dpkg --add-architecture arm64
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
fi
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" file qemu-user qemu-user-binfmt \
    g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libc6-dev-arm64-cross \
    libc6:arm64 libstdc++6:arm64 libgcc-s1:arm64 \
    libcjson-dev:arm64 libssl-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64

qemu="$(command -v qemu-aarch64-static || command -v qemu-aarch64)"

# Some tests start a copy of their own program or another program of the
# build (fork and exec; ctest label self_exec): the kernel hands aarch64
# programs to qemu-user only through binfmt_misc, which qemu-user-binfmt
# describes but cannot register where no service does it.
binfmt=/proc/sys/fs/binfmt_misc
exclude_labels=""
if [ ! -e "$binfmt/qemu-aarch64" ]; then
    echo "== registering qemu-aarch64 with binfmt_misc"
    { [ -e "$binfmt/register" ] || $sudo mount -t binfmt_misc binfmt_misc "$binfmt"; } 2>/dev/null &&
        $sudo sh -c "cat /usr/lib/binfmt.d/qemu-aarch64.conf > $binfmt/register" 2>/dev/null || true
fi
if ! grep -qx enabled "$binfmt/qemu-aarch64" 2>/dev/null; then
    # Without binfmt_misc (a container that may not mount it) the tests that
    # start an aarch64 program of their own cannot run; everything else
    # still does, and the native suite has run those tests already.
    exclude_labels=self_exec
    echo "== WARNING: qemu-aarch64 could not be registered with binfmt_misc;" \
         "the tests labelled self_exec (they start a program of their own) are left out of the emulated run"
fi

# ---------------------------------------------------------------------------
# qemu-user (7.2) passes only the first 4 bytes of the legacy termio record
# through the TCGETA/TCSETA/TCSETAW/TCSETAF requests (it declares them as
# pointers to int): c_cflag, c_lflag, c_line and c_cc are never read back,
# and are set from uninitialised emulator memory. The Linux kernel on a real
# arm64 machine handles these requests like any other architecture. So that
# the emulated suite tests the library's own code, test programs run with a
# small preloaded shim that carries out these four requests as the kernel
# does (low 16 bits of each mode word, the line discipline and the first
# NCC control characters) through tcgetattr/tcsetattr, which qemu translates
# in full. Every other ioctl goes to the kernel unchanged. LD_PRELOAD names
# it through $LIB, so that the programs a test starts find it too: aarch64
# ones (run through binfmt_misc) the shim, host ones (a shell) an empty
# library of the host's architecture.
shimdir="$build/qemu-shim"
shim_src="$shimdir/kolt-termio-shim.c"
shim="$shimdir/lib/$triple/libkolt-termio-shim.so"
host_stub="$shimdir/lib/$(gcc -print-multiarch)/libkolt-termio-shim.so"
preload="$shimdir/\$LIB/libkolt-termio-shim.so"
mkdir -p "$(dirname "$shim")" "$(dirname "$host_stub")"
cat > "$shim_src.new" <<'EOF'
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
EOF
if ! cmp -s "$shim_src.new" "$shim_src" || [ ! -f "$shim" ] || [ ! -f "$host_stub" ]; then
    mv "$shim_src.new" "$shim_src"
    "$triple-gcc" -O2 -Wall -Wextra -shared -fPIC -o "$shim" "$shim_src"
    gcc -O2 -Wall -Wextra -shared -fPIC -o "$host_stub" "$shim_src"
else
    rm -f "$shim_src.new"
fi

# ---------------------------------------------------------------------------
echo "== aarch64 cross build in $build"
cmake -S "$KOLT_ROOT" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$KOLT_ROOT/cmake/toolchain-aarch64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    "-DCMAKE_CROSSCOMPILING_EMULATOR=$qemu;-E;LD_PRELOAD=$preload" >/dev/null
cmake --build "$build" -j "$jobs"

# ---------------------------------------------------------------------------
echo "== checking the aarch64 shared object"
lib="$(find "$build" -maxdepth 2 -name 'libkolt.so.*.*.*' -type f | head -n 1)"
[ -n "$lib" ] || { echo "libkolt.so.X.Y.Z not found in $build" >&2; exit 1; }
desc="$(file -b "$lib")"
echo "$(basename "$lib"): $desc"
case "$desc" in
    *"ELF 64-bit LSB shared object, ARM aarch64"*) ;;
    *) echo "not an aarch64 shared object" >&2; exit 1 ;;
esac
"$triple-readelf" -d "$lib" | grep -E '\((NEEDED|SONAME)\)'
soname="$("$triple-readelf" -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
[ "$soname" = "libkolt.so.2" ] || { echo "unexpected SONAME '$soname'" >&2; exit 1; }
unexpected="$("$triple-readelf" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -v -E '^(libstdc\+\+\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libcjson\.so\.1|ld-linux-aarch64\.so\.1)$' || true)"
[ -z "$unexpected" ] || { echo "unexpected dependencies: $unexpected" >&2; exit 1; }

# ---------------------------------------------------------------------------
echo "== test suite under $(basename "$qemu") ($("$qemu" --version | head -n 1))"
tstart=$(date +%s)
(cd "$build" && ctest --output-on-failure -j "$jobs" \
    --timeout "${KOLT_AARCH64_TEST_TIMEOUT:-600}" \
    ${exclude_labels:+-LE "$exclude_labels"})
echo "== aarch64 suite passed under qemu-user in $(( $(date +%s) - tstart )) s" \
     "(whole script $(( $(date +%s) - start )) s)"
