#!/usr/bin/env bash
# Builds the Debian packages libkolt2, libkolt-dev and kolt-tools for amd64
# (native, the default) or arm64 (cross-compiled with Debian's cross
# toolchain, cmake/toolchain-aarch64.cmake) into build/packages/<arch>/,
# and checks them (tests/package/check_debs.sh):
#
#   ./scripts/package.sh [amd64|arm64]
#
# The build tree is build/pkg-<arch> (without the tests). Install the
# packages with: sudo apt install ./build/packages/amd64/*.deb
source "$(dirname "$0")/common.sh"

arch="${1:-$(dpkg --print-architecture)}"
native="$(dpkg --print-architecture)"
cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr -DKOLT_WERROR=ON -DKOLT_TESTS=OFF)
case "$arch" in
    "$native")
        kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" "${KOLT_PACKAGING_PACKAGES[@]}"
        ;;
    arm64)
        kolt_ensure_arm64_packages "${KOLT_BUILD_PACKAGES[@]}" "${KOLT_AARCH64_PACKAGES[@]}" \
            "${KOLT_PACKAGING_PACKAGES[@]}"
        cmake_args+=("-DCMAKE_TOOLCHAIN_FILE=$KOLT_ROOT/cmake/toolchain-aarch64.cmake")
        ;;
    *)
        echo "usage: $0 [$native|arm64]" >&2
        exit 2
        ;;
esac

cd "$KOLT_ROOT"
start=$(date +%s)
build="build/pkg-$arch"
out="build/packages/$arch"
jobs="$KOLT_JOBS"
[ "$jobs" -gt 2 ] 2>/dev/null && jobs=2

echo "== $arch build in $build"
cmake -S . -B "$build" "${cmake_args[@]}" >/dev/null
cmake --build "$build" -j "$jobs"

echo "== packages into $out"
rm -rf "$out"
cpack --config "$build/CPackConfig.cmake" -B "$out" >"$build/cpack.log" 2>&1 ||
    { cat "$build/cpack.log" >&2; echo "cpack failed" >&2; exit 1; }
rm -rf "$out/_CPack_Packages"
bash tests/package/check_debs.sh "$out" "$arch" "$build"
ls -l "$out"/*.deb
echo "== packages for $arch made in $(( $(date +%s) - start )) s"
