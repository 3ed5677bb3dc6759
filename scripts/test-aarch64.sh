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
# libcli11-dev (in KOLT_BUILD_PACKAGES) is header-only and architecture
# "all": the host's package serves the cross build, found through the "/"
# of the toolchain's root path.
kolt_ensure_arm64_packages "${KOLT_BUILD_PACKAGES[@]}" "${KOLT_AARCH64_PACKAGES[@]}" \
    "${KOLT_PACKAGING_PACKAGES[@]}" qemu-user qemu-user-binfmt

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
# small preloaded shim (scripts/qemu/kolt-termio-shim.c) that carries out
# these four requests as the kernel does through tcgetattr/tcsetattr, which
# qemu translates in full. Every other ioctl goes to the kernel unchanged.
# LD_PRELOAD names it through $LIB, so that the programs a test starts find
# it too: aarch64 ones (run through binfmt_misc) the shim, host ones (a
# shell) an empty library of the host's architecture.
shim_src="$KOLT_ROOT/scripts/qemu/kolt-termio-shim.c"
shimdir="$build/qemu-shim"
shim="$shimdir/lib/$triple/libkolt-termio-shim.so"
host_stub="$shimdir/lib/$(gcc -print-multiarch)/libkolt-termio-shim.so"
preload="$shimdir/\$LIB/libkolt-termio-shim.so"
mkdir -p "$(dirname "$shim")" "$(dirname "$host_stub")"
# Built again whenever the source differs from the one last built (a copy
# is kept beside the libraries).
if ! cmp -s "$shim_src" "$shimdir/kolt-termio-shim.c" || [ ! -f "$shim" ] || [ ! -f "$host_stub" ]; then
    "$triple-gcc" -O2 -Wall -Wextra -Werror -shared -fPIC -o "$shim" "$shim_src"
    gcc -O2 -Wall -Wextra -Werror -shared -fPIC -o "$host_stub" "$shim_src"
    cp "$shim_src" "$shimdir/kolt-termio-shim.c"
fi

# ---------------------------------------------------------------------------
echo "== aarch64 cross build in $build"
cmake -S "$KOLT_ROOT" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$KOLT_ROOT/cmake/toolchain-aarch64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_WERROR=ON \
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
# The SONAME CMake derived from the project version (CMakeLists.txt).
expected_soname="$(cat "$build/kolt-soname.txt")"
[ -n "$expected_soname" ] && [ "$soname" = "$expected_soname" ] ||
    { echo "unexpected SONAME '$soname' (CMake gives '$expected_soname')" >&2; exit 1; }
unexpected="$("$triple-readelf" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -v -E '^(libstdc\+\+\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libcjson\.so\.1|ld-linux-aarch64\.so\.1)$' || true)"
[ -z "$unexpected" ] || { echo "unexpected dependencies: $unexpected" >&2; exit 1; }

# ---------------------------------------------------------------------------
# The arm64 Debian packages of this tree: architecture, the aarch64 library
# in lib/aarch64-linux-gnu, Depends and contents (the same checks as the
# native packages' test).
echo "== arm64 Debian packages"
rm -rf "$build/packages"
cpack --config "$build/CPackConfig.cmake" -B "$build/packages" >"$build/cpack.log" 2>&1 ||
    { cat "$build/cpack.log" >&2; echo "cpack failed" >&2; exit 1; }
bash "$KOLT_ROOT/tests/package/check_debs.sh" "$build/packages" arm64 "$build"

# ---------------------------------------------------------------------------
echo "== test suite under $(basename "$qemu") ($("$qemu" --version | head -n 1))"
tstart=$(date +%s)
(cd "$build" && ctest --output-on-failure -j "$jobs" \
    --timeout "${KOLT_AARCH64_TEST_TIMEOUT:-600}" \
    ${exclude_labels:+-LE "$exclude_labels"})
echo "== aarch64 suite passed under qemu-user in $(( $(date +%s) - tstart )) s" \
     "(whole script $(( $(date +%s) - start )) s)"
