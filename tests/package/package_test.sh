#!/usr/bin/env bash
# The ctest test debian_packages: makes the Debian packages of the build
# tree with cpack (into a temporary directory), checks them
# (check_debs.sh), unpacks libkolt2, libkolt-dev and kolt-tools into a
# temporary root, and builds the consumer program of consumer/ against the
# unpacked tree twice, with pkg-config and with CMake's find_package(kolt).
# Each build runs against the simulator with the unpacked library, and must
# have loaded it from there. The unpacked kolt-sim must find a shipped
# profile by name.
#
#   package_test.sh BUILD_DIR KOLT_SIM CPACK CMAKE CC
set -euo pipefail

if [ $# -ne 5 ]; then
    echo "usage: $0 BUILD_DIR KOLT_SIM CPACK CMAKE CC" >&2
    exit 2
fi
build="$1"
kolt_sim="$2"
cpack="$3"
cmake="$4"
cc="$5"
here="$(cd "$(dirname "$0")" && pwd)"
for tool in dpkg-deb dpkg-shlibdeps dpkg-architecture pkg-config file readelf; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing (packages: dpkg-dev file pkg-config binutils)" >&2; exit 1; }
done
arch="$(dpkg --print-architecture)"
multiarch="$(dpkg-architecture -q DEB_HOST_MULTIARCH)"
start=$(date +%s)

work="$(mktemp -d)"
sims=()
cleanup() {
    local pid
    for pid in "${sims[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${sims[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

step() { echo "== $* ($(( $(date +%s) - start )) s)"; }

# Runs a command quietly; shows its output when it fails.
quietly() {
    local log="$work/step.log"
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        echo "FAIL: $*" >&2
        exit 1
    fi
}

# ---------------------------------------------------------------------------
step "cpack for $build"
quietly "$cpack" --config "$build/CPackConfig.cmake" -B "$work/debs"
bash "$here/check_debs.sh" "$work/debs" "$arch" "$build"

version="$(sed -n 's/^version=//p' "$build/deb/package-check.txt")"
root="$work/root"
for pkg in libkolt2 libkolt-dev kolt-tools; do
    dpkg-deb -x "$work/debs/${pkg}_${version}_${arch}.deb" "$root"
done
libdir="$root/usr/lib/$multiarch"

# ---------------------------------------------------------------------------
step "consumer built with pkg-config"
export PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
export PKG_CONFIG_PATH=""
[ "$(pkg-config --modversion kolt)" = "${version%-*}" ] ||
    { echo "FAIL: pkg-config gives version $(pkg-config --modversion kolt)" >&2; exit 1; }
cflags="$(pkg-config --cflags kolt)"
libs="$(pkg-config --libs kolt)"
echo "pkg-config: $cflags $libs"
# The paths kolt.pc gives lead into the unpacked tree (it finds its prefix
# from its own place), also when a sysroot is set as for a cross build.
inc="$(realpath -m "$(echo "$cflags" | sed -n 's/.*-I\([^ ]*\).*/\1/p')")"
[ "$inc" = "$(realpath "$root/usr/include")" ] || { echo "FAIL: include directory $inc" >&2; exit 1; }
sysroot_cflags="$(PKG_CONFIG_SYSROOT_DIR="$root" pkg-config --cflags kolt)"
inc="$(realpath -m "$(echo "$sysroot_cflags" | sed -n 's/.*-I\([^ ]*\).*/\1/p')")"
[ "$inc" = "$(realpath "$root/usr/include")" ] ||
    { echo "FAIL: include directory with PKG_CONFIG_SYSROOT_DIR: $inc" >&2; exit 1; }
# shellcheck disable=SC2086
quietly "$cc" -std=c99 -Wall -Wextra -Werror -pedantic -o "$work/consumer-pc" "$here/consumer/consumer.c" $cflags $libs
unset PKG_CONFIG_LIBDIR PKG_CONFIG_PATH

step "consumer built with find_package(kolt)"
quietly "$cmake" -S "$here/consumer" -B "$work/consumer-cmake" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_BUILD_TYPE=Release
found="$(sed -n 's/^kolt_DIR:PATH=//p' "$work/consumer-cmake/CMakeCache.txt")"
[ "$(realpath "$found")" = "$(realpath "$libdir/cmake/kolt")" ] ||
    { echo "FAIL: find_package(kolt) found $found" >&2; exit 1; }
quietly "$cmake" --build "$work/consumer-cmake"

# The CMake package refuses another major version and a newer minor one.
mkdir -p "$work/version-check"
cat >"$work/version-check/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(kolt_version_check LANGUAGES C)
find_package(kolt 2.0 CONFIG REQUIRED)
find_package(kolt 3 CONFIG QUIET)
if(kolt_FOUND)
  message(FATAL_ERROR "kolt 3 accepted")
endif()
find_package(kolt 2.9 CONFIG QUIET)
if(kolt_FOUND)
  message(FATAL_ERROR "kolt 2.9 accepted")
endif()
EOF
quietly "$cmake" -S "$work/version-check" -B "$work/version-check/build" -DCMAKE_PREFIX_PATH="$root/usr" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_C_COMPILER="$cc"

# ---------------------------------------------------------------------------
# start_sim PROGRAM PORT_FILE [options]: a simulator in the background;
# sets port to its gPortName value once it serves.
start_sim() {
    local program="$1" port_file="$2"
    shift 2
    "$program" --port-file "$port_file" --no-interactive "$@" >"$port_file.log" 2>&1 &
    sims+=($!)
    local i
    for i in $(seq 100); do
        [ -s "$port_file" ] && break
        kill -0 "${sims[-1]}" 2>/dev/null || { cat "$port_file.log" >&2; echo "FAIL: $program exited" >&2; exit 1; }
        sleep 0.05
    done
    [ -s "$port_file" ] || { cat "$port_file.log" >&2; echo "FAIL: $program does not serve" >&2; exit 1; }
    port="$(cat "$port_file")"
}

# run_consumer PROGRAM PORT: runs it with the unpacked library; it must
# print the version (left in out) and have loaded libkolt.so.2 from the
# unpacked tree.
run_consumer() {
    local program="$1" port="$2"
    out="$(LD_LIBRARY_PATH="$libdir" LD_DEBUG=libs LD_DEBUG_OUTPUT="$work/ld" "$program" "$port")" ||
        { echo "FAIL: $program $port: $out" >&2; exit 1; }
    echo "$(basename "$program"): $out"
    echo "$out" | grep -qE '^version:( [0-9A-F]{2})+$' || { echo "FAIL: no version in '$out'" >&2; exit 1; }
    local loaded
    loaded="$(cat "$work"/ld.* | sed -n 's/.*calling init: \(.*libkolt\.so\.[0-9]*\)$/\1/p' | head -n 1)"
    rm -f "$work"/ld.*
    [ -n "$loaded" ] || { echo "FAIL: $program did not load libkolt" >&2; exit 1; }
    case "$(realpath "$loaded")" in
        "$(realpath "$libdir")"/*) echo "  loaded $loaded" ;;
        *) echo "FAIL: $program loaded $loaded, not the unpacked library" >&2; exit 1 ;;
    esac
}

step "both consumers against the simulator of the build"
start_sim "$kolt_sim" "$work/sim.port"
run_consumer "$work/consumer-pc" "$port"
run_consumer "$work/consumer-cmake/kolt-consumer" "$port"

step "the unpacked kolt-sim with a shipped profile named"
start_sim "$root/usr/bin/kolt-sim" "$work/sim-packaged.port" --profile short_version
run_consumer "$work/consumer-cmake/kolt-consumer" "$port"
# That profile's version text, not the built-in unit's.
want="version:$(printf '%s' KL560T41-FW-V1.08 | od -An -tx1 | tr 'a-f\n' 'A-F ' | sed 's/  */ /g; s/ $//')"
[ "$out" = "$want" ] || { echo "FAIL: the packaged kolt-sim answered '$out', not '$want'" >&2; exit 1; }

step "packages checked and used"
