#!/usr/bin/env bash
# Checks the three Debian packages made from one build tree: their control
# fields, their Depends against what their ELF files need, their control
# files, and their exact contents; that the ELF files are objects of the
# package's architecture and carry no RPATH or RUNPATH.
#
#   check_debs.sh DEB_DIR ARCH BUILD_DIR
#
# DEB_DIR holds libkolt2_<version>_<ARCH>.deb, libkolt-dev_... and
# kolt-tools_...; ARCH is the Debian architecture they must be for (amd64,
# arm64); BUILD_DIR is the build tree they were made from: its
# deb/package-check.txt (written by cmake/package.cmake) tells the version
# and which optional programs that tree built. Exits 1 on any difference,
# after listing them all. Used by the ctest test debian_packages
# (tests/package/package_test.sh), scripts/package.sh and
# scripts/test-aarch64.sh.
set -euo pipefail

if [ $# -ne 3 ]; then
    echo "usage: $0 DEB_DIR ARCH BUILD_DIR" >&2
    exit 2
fi
debs="$1"
arch="$2"
info="$3/deb/package-check.txt"
[ -f "$info" ] || { echo "$info not found: configure the build tree first" >&2; exit 2; }
setting() { sed -n "s/^$1=//p" "$info"; }
version="$(setting version)"      # 2.0.1-1
soname="$(setting soname)"        # libkolt.so.2
library="$(setting library)"      # libkolt.so.2.0.1
config="$(setting config)"        # relwithdebinfo
source_dir="$(setting source)"
multiarch="$(dpkg-architecture -a "$arch" -q DEB_HOST_MULTIARCH 2>/dev/null)"
libdir="usr/lib/$multiarch"
case "$arch" in
    amd64) machine="Advanced Micro Devices X86-64" ;;
    arm64) machine="AArch64" ;;
    *) echo "no ELF machine known for $arch" >&2; exit 2 ;;
esac
maintainer="KOLT driver team <driver@kolt.invalid>"

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The Debian package that provides a library the ELF files need.
package_of_soname() {
    case "$1" in
        "$soname") echo libkolt2 ;;
        libc.so.6 | libm.so.6 | libdl.so.2 | libpthread.so.0 | librt.so.1 | libutil.so.1 | ld-linux*.so.*) echo libc6 ;;
        libstdc++.so.6) echo libstdc++6 ;;
        libgcc_s.so.1) echo libgcc-s1 ;;
        libcjson.so.1) echo libcjson1 ;;
        libcrypto.so.3 | libssl.so.3) echo libssl3 ;;
        libxml2.so.2) echo libxml2 ;;
        *) echo "?$1" ;;
    esac
}

is_elf() { [ "$(head -c 4 "$1" | od -An -c | tr -d ' ')" = "177ELF" ]; }

# The files and links of a package, one a line: "./path" or "./path -> target".
contents() {
    dpkg-deb -c "$1" | awk '$1 !~ /^d/ { line = $6; for (i = 7; i <= NF; ++i) line = line " " $i; print line }' | sort
}

# check_package NAME SECTION EXPECTED_CONTENTS MUST_DEPEND...
check_package() {
    local pkg="$1" section="$2" expected="$3"
    shift 3
    local deb="$debs/${pkg}_${version}_${arch}.deb"
    if [ ! -f "$deb" ]; then
        fail "$pkg: $(basename "$deb") not found in $debs"
        return
    fi

    # Control fields.
    local field want got
    for field in Package Version Architecture Maintainer Section Priority Source; do
        case "$field" in
            Package) want="$pkg" ;;
            Version) want="$version" ;;
            Architecture) want="$arch" ;;
            Maintainer) want="$maintainer" ;;
            Section) want="$section" ;;
            Priority) want=optional ;;
            Source) want=kolt ;;
        esac
        got="$(dpkg-deb -f "$deb" "$field")"
        [ "$got" = "$want" ] || fail "$pkg: $field is '$got', not '$want'"
    done
    [ -n "$(dpkg-deb -f "$deb" Description)" ] || fail "$pkg: no Description"

    # Contents, exactly.
    local diffs
    if ! diffs="$(diff <(echo "$expected" | sort) <(contents "$deb"))"; then
        fail "$pkg: contents differ (< expected, > in the package):"$'\n'"$diffs"
    fi

    # The ELF files: the package's architecture, no RPATH or RUNPATH, and
    # the packages that provide the libraries they need.
    local root="$work/$pkg" file needed=""
    mkdir -p "$root"
    dpkg-deb -x "$deb" "$root"
    while IFS= read -r -d '' file; do
        is_elf "$file" || continue
        local rel="${file#"$root"/}"
        got="$(readelf -h "$file" | sed -n 's/^ *Machine: *//p')"
        [ "$got" = "$machine" ] || fail "$pkg: $rel is for '$got', not '$machine'"
        if readelf -d "$file" | grep -E '\((RPATH|RUNPATH)\)' >/dev/null; then
            fail "$pkg: $rel has $(readelf -d "$file" | grep -E '\((RPATH|RUNPATH)\)' | sed 's/^ *//')"
        fi
        needed+="$(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')"$'\n'
    done < <(find "$root" -type f -print0)
    local needs="" so
    for so in $(echo "$needed" | sort -u); do
        needs+="$(package_of_soname "$so")"$'\n'
    done
    needs="$(echo "$needs" | sed '/^$/d' | sort -u)"
    local unknown
    unknown="$(echo "$needs" | sed -n 's/^?//p')"
    [ -z "$unknown" ] || fail "$pkg: needs libraries of no expected package: $unknown"

    # Depends: each entry versioned (libkolt2 exactly this version), no
    # alternatives, and the set of names that of the libraries needed (plus
    # libkolt2 where the caller asks for it).
    local depends entries names entry name
    depends="$(dpkg-deb -f "$deb" Depends)"
    entries="$(echo "$depends" | tr ',' '\n' | sed 's/^ *//; s/ *$//; /^$/d')"
    names=""
    while IFS= read -r entry; do
        [ -n "$entry" ] || continue
        name="${entry%% *}"
        names+="$name"$'\n'
        case "$entry" in
            *"|"*) fail "$pkg: alternatives in Depends: $entry" ;;
            "libkolt2 (= $version)") ;;
            libkolt2*) fail "$pkg: Depends has '$entry', not 'libkolt2 (= $version)'" ;;
            *" (>= "*")") ;;
            *) fail "$pkg: Depends entry without a lower version: '$entry'" ;;
        esac
    done <<<"$entries"
    names="$(echo "$names" | sed '/^$/d' | sort)"
    local must
    for must in "$@"; do
        # A match on whole lines without a pipe: under pipefail a reader
        # that stops early can fail a pipeline whose match was found.
        [[ $'\n'"$names"$'\n' == *$'\n'"$must"$'\n'* ]] || fail "$pkg: Depends lacks $must: $depends"
    done
    local wanted
    wanted="$( { echo "$needs" | grep -v '^?' || true; printf '%s\n' "$@"; } | sed '/^$/d' | sort -u)"
    [ "$names" = "$(echo "$wanted" | sort)" ] ||
        fail "$pkg: Depends names '$(echo $names)' are not those of the libraries needed '$(echo $wanted)'"
    echo "$pkg $version $arch: Depends: $depends"
}

# ---------------------------------------------------------------------------
expected_lib="./$libdir/$library
./$libdir/$soname -> $library"

expected_dev="./usr/include/kolt/kolt.h
./$libdir/libkolt.so -> $soname
./$libdir/pkgconfig/kolt.pc
./$libdir/cmake/kolt/koltConfig.cmake
./$libdir/cmake/kolt/koltConfigVersion.cmake
./$libdir/cmake/kolt/koltTargets.cmake
./$libdir/cmake/kolt/koltTargets-$config.cmake"

tool_libs=(libkolt2 libc6 libstdc++6 libssl3 libcjson1)
expected_tools="./usr/bin/kolt-sim
./usr/bin/kolt-issuer
./usr/bin/kolt-clerk
./$libdir/kolt/standins/libwlt.so
./$libdir/kolt/standins/libidpic.so
./usr/share/doc/kolt-tools/kolt-sim.md
./usr/share/doc/kolt-tools/examples/README.md
./usr/share/doc/kolt-tools/examples/kolt.ini
./usr/share/doc/kolt-tools/examples/param.ini
./usr/share/doc/kolt-tools/examples/koltt41fp.cfg
./usr/share/doc/kolt-tools/examples/idcread.ext"
if [ "$(setting cli)" = 1 ]; then expected_tools+=$'\n'"./usr/bin/kolt"; fi
if [ "$(setting clerkd)" = 1 ]; then
    expected_tools+=$'\n'"./usr/bin/kolt-clerkd"
    tool_libs+=(libxml2)
fi
if [ "$(setting man)" = 1 ]; then expected_tools+=$'\n'"./usr/share/man/man1/kolt.1.gz"; fi
# Every profile and every card file of the simulator.
expected_tools+=$'\n'"$(cd "$source_dir/sim" && find profiles -maxdepth 1 -name '*.json' -type f |
    sed 's|^|./usr/share/kolt/sim/|')"
expected_tools+=$'\n'"$(cd "$source_dir/sim" && find cards -type f | sed 's|^|./usr/share/kolt/sim/|')"
expected_tools+=$'\n'"$(cd "$source_dir/sim" && find clerks -maxdepth 1 -name '*.json' -type f |
    sed 's|^|./usr/share/kolt/sim/|')"
expected_tools+=$'\n'"$(cd "$source_dir/sim" && find sessions -maxdepth 1 -name '*.session' -type f |
    sed 's|^|./usr/share/kolt/sim/|')"

check_package libkolt2 libs "$expected_lib" libc6 libstdc++6
check_package libkolt-dev libdevel "$expected_dev" libkolt2
check_package kolt-tools utils "$expected_tools" "${tool_libs[@]}"

# libkolt2: the shared object itself, and its shlibs and trigger.
lib2="$debs/libkolt2_${version}_${arch}.deb"
if [ -f "$lib2" ]; then
    so="$work/libkolt2/$libdir/$library"
    if [ -f "$so" ]; then
        got="$(readelf -h "$so" | sed -n 's/^ *Type: *//p')"
        case "$got" in DYN*) ;; *) fail "libkolt2: $library is of type '$got', not a shared object" ;; esac
        got="$(readelf -d "$so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
        [ "$got" = "$soname" ] || fail "libkolt2: SONAME '$got', not '$soname'"
        echo "libkolt2: $libdir/$library: $(file -b "$so" | cut -d, -f1-2), SONAME $got"
    fi
    want="${soname%.so.*} ${soname##*.so.} libkolt2 (>= $version)"
    got="$(dpkg-deb -I "$lib2" shlibs 2>/dev/null || true)"
    [ "$got" = "$want" ] || fail "libkolt2: shlibs is '$got', not '$want'"
    got="$(dpkg-deb -I "$lib2" triggers 2>/dev/null || true)"
    [[ $'\n'"$got"$'\n' == *$'\n'"activate-noawait ldconfig"$'\n'* ]] || fail "libkolt2: no ldconfig trigger ('$got')"
fi
for pkg in libkolt-dev kolt-tools; do
    deb="$debs/${pkg}_${version}_${arch}.deb"
    if [ -f "$deb" ] && dpkg-deb -I "$deb" shlibs >/dev/null 2>&1; then fail "$pkg: has a shlibs file"; fi
done

# libkolt-dev: the pkg-config file's version.
pc="$work/libkolt-dev/$libdir/pkgconfig/kolt.pc"
if [ -f "$pc" ]; then
    got="$(sed -n 's/^Version: *//p' "$pc")"
    [ "$got" = "${version%-*}" ] || fail "libkolt-dev: kolt.pc has Version '$got', not '${version%-*}'"
fi

if [ "$failures" -ne 0 ]; then
    echo "== $failures problem(s) with the packages in $debs" >&2
    exit 1
fi
echo "== the packages in $debs are as expected ($arch, $version)"
