#!/usr/bin/env bash
# The main job: builds the library and shows what it exports.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

cd "$KOLT_ROOT"
kolt_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_TESTS=OFF
lib=$(readlink -f build/release/libkolt.so)
echo "== $lib"
readelf -d "$lib" | grep -E 'SONAME|NEEDED'
echo "== exported names"
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBR]$/ {print $3}' | sort | column -c 120
